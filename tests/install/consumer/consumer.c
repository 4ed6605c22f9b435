/* A program of a user of the installed library: includes its header, links it, calls it. */
#include <stdio.h>
#include <string.h>

#include "korvel.h"

int main(void) {
  char version[32] = {0};
  if (mdfOpen("CONSUMER") != MDF_OK) return 1;
  mdfGetKorvelVersion(version, (int32_t)sizeof version - 1);
  if (strncmp(version, "5.87 ", 5) != 0) return 2;
  if (mdfClose() != MDF_OK) return 3;
  printf("%s\n", version);
  return 0;
}

/* Builds as strict C99 against the public header and calls the library through it. */
#include <stdio.h>
#include <string.h>

#include "korvel.h"

int main(void) {
  char version[9];
  MdfSortParams params;
  ce_info info;
  int failures = 0;

  if (mdfOpen("CTEST") != MDF_OK) failures++;
  if (mdfOpen("CTEST") != MDF_ALREADY_OPEN) failures++;
  if (mdfGetErrorCode() != 0) failures++; /* positive statuses are not sticky */
  memset(version, 'x', sizeof version);
  mdfGetMdfFormatVersion(version, 8);
  if (memcmp(version, "3.30    x", 9) != 0) failures++;
  if (strcmp(mdfGetTextStrD(MDF_ERR_OPEN_MODE), "illegal group open mode") != 0) failures++;
  if (mdfClose() != MDF_OK) failures++;
  if (sizeof params != 56 || sizeof info != 128) failures++;
  if (failures != 0) printf("%d failures\n", failures);
  return failures == 0 ? 0 : 1;
}

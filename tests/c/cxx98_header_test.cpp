// The public header compiles as C++98 (the build of this file is the test).
#include "korvel.h"

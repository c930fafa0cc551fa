// The PSP directory marker test joins with the update progress records; until they are
// built, the primary directory is reported intact ("no marker"), so the query reads the
// BIOS ID from the configured area. Completed with the progress records, which replace
// this file.
#include "ImageQuery.h"

BOOLEAN IsPspDirectoryInvalidated() { return FALSE; }

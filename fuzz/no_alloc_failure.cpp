// The fake transport pauses allocation-failure injection around its own
// bookkeeping. The fuzz targets inject none, and the injector's malloc
// replacement cannot sit beside the sanitizer's, so pausing does nothing here.
#include "alloc_failure.h"

alloc_failure::Suspend::Suspend() : saved_(-1) {}
alloc_failure::Suspend::~Suspend() = default;

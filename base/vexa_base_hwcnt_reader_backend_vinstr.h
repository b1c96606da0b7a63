// The backend of the counter reader: the kernel driver's own readers.
#pragma once

#include "base/vexa_base_hwcnt_reader.h"

extern "C" {

// Fills in the backend's operations.
void base_hwcnt_reader_backend_vinstr_create(base_hwcnt_reader_operations* backend);

}  // extern "C"

// The order in which the library's load-time initialisers run, and backwards its destructors at exit.
#pragma once

// The language orders initialisers within one file only. These priorities order them across files: the lower
// runs first, and all of them before any initialiser without a priority, the tracing SDK's included. They are
// macros because the attribute that takes them wants a plain number.
#define VEXA_LOAD_ORDER_TABLES 1000
#define VEXA_LOAD_ORDER_LOGGING 1001
#define VEXA_LOAD_ORDER_LIBRARY_HOOKS 1002

// How a function takes the place of one of the C library's.
//
// The headers declare these calls as well, and in some builds redirect one to another's symbol or define them
// inline. So the stand-ins have names of their own here, and only their symbols are the C library's.
#pragma once

#define STAND_IN_FOR(symbol) __asm__(symbol) __attribute__((visibility("default"), used))

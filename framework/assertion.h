/*
 * Guard of the assertions: include this instead of <cassert>.
 *
 * A failed assertion aborts the process, and the watchdog parent answers an abort with a restart.
 * A build without assertions would run on in a broken state instead, so it is refused.
 */
#pragma once

#ifdef NDEBUG
#error "assertions are part of the product: build without NDEBUG"
#endif

#include <cassert>

#pragma once
// The recording seam of a fuzzing process: installed at the first call, before any daemon code,
// and kept for the process's life, so that one private directory serves every run. Each call
// drops what the previous run left in the records and the simulated driver, so that no run
// depends on an earlier one and the records do not grow without end.

#include <cstdlib>

#include "fake_system.h"

inline FakeSystem& freshSeam() {
    static FakeSystem fake;
    static const bool installed = (sys::install(&fake), true);
    (void)installed;
    if (&sys::current() != &fake) std::abort();  // nothing may run on another seam
    fake.commands.clear();
    fake.hostNamesSet.clear();
    fake.sleeps.clear();
    fake.interfaceQueries.clear();
    fake.driver = SimDriver{};
    return fake;
}

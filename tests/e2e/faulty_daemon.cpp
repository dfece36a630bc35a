// The faitra command with injectable system-call faults, for the daemon's
// fault tests: the real command's objects plus the replacements of
// support/interpose.cpp, armed from the environment before main runs
// (FAITRA_FAULT_*, FAITRA_FAULT_ARM, FAITRA_INSTANT_SLEEP; see interpose.hpp).
#include "support/interpose.hpp"

namespace {
[[maybe_unused]] const bool armed = (faitra_test::arm_from_environment(), true);
}  // namespace

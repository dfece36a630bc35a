// The checks of every numeric and enumerated command-line value, in one
// place. Each subcommand attaches one of these validators to its option;
// the validator looks at the text before CLI11 converts it, so that a value
// that is not a number, is negative for an unsigned option, has a fraction
// where a whole number is due or lies outside its range is refused with a
// message that says which ("abc is not a number", "-1 is negative: ..."),
// and nothing wraps around or is converted loosely.
//
// Thread-safety: pure functions.
#pragma once

#include <CLI/CLI.hpp>

#include <limits>
#include <string>

namespace faitra_cli {

// The reason `text` is not a whole decimal number from `min` to `max`, or
// empty when it is one.
std::string unsigned_problem(const std::string& text, unsigned long min = 0,
                             unsigned long max = std::numeric_limits<unsigned long>::max());

// The reason `text` is not a finite decimal number from `min` to `max` (an
// infinite `max`: no upper bound), or empty when it is one.
std::string number_problem(const std::string& text, double min, double max);

// A whole number from `min` to `max`.
CLI::Validator unsigned_value(unsigned long min = 0, unsigned long max = std::numeric_limits<unsigned long>::max());

// A finite number from `min` to `max`.
CLI::Validator number_value(double min, double max = std::numeric_limits<double>::infinity());

// A capture suffix: anything but the empty text, which every name ends with.
CLI::Validator suffix_value();

// One of the log priorities by name, any case; turned into its number for
// CLI11 to convert into cdl::log_priority::value.
CLI::Validator log_level_value();

// The log priorities by name, most severe first, for help texts.
extern const char* const LOG_LEVEL_NAMES;

}  // namespace faitra_cli

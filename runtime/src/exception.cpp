// Key functions of the exception family: defining the destructors here gives
// the runtime the classes' virtual tables and type information.
#include <cdl/exception.hpp>

namespace cdl {

exception::~exception() = default;
assertion_failure::~assertion_failure() = default;
missing_field_error::~missing_field_error() = default;
unexpected_type_error::~unexpected_type_error() = default;
not_in_range_error::~not_in_range_error() = default;
unrecognized_value_error::~unrecognized_value_error() = default;

}  // namespace cdl

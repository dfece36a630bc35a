// Task classes and checks shared by the task-system tests.
#pragma once

#include <cdl/exception.hpp>
#include <cdl/task_ptr.hpp>

#include <gtest/gtest.h>

#include <functional>
#include <string>

namespace faitra_test {

// Gives a test task class the identity its handlers are registered under:
// type() is identify<Self>() and name() is Self::name_static(), as for the
// library's own task classes. Base is cdl::task or another test task.
template <typename Self, typename Base = cdl::task>
class test_task : public Base {
 public:
  using Base::Base;
  const cdl::task_type& type() const override { return cdl::task_type::identify<Self>(); }
  const std::string& name() const override { return Self::name_static(); }
};

// Expects `action` to raise exactly a cdl::exception with this message,
// source file base name and line.
inline void expect_cdl_exception(const std::function<void()>& action, const std::string& message,
                                 const std::string& file, unsigned long line) {
  try {
    action();
    ADD_FAILURE() << "no exception; expected \"" << message << "\"";
  } catch (const cdl::exception& e) {
    EXPECT_EQ(e.what(), message);
    EXPECT_EQ(e.file(), file);
    EXPECT_EQ(e.line(), line);
  }
}

}  // namespace faitra_test

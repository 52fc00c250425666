#pragma once

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

// Runs f, which must throw std::invalid_argument with exactly `message`.
template <class F>
void expect_invalid(F&& f, std::string const& message) {
  try {
    f();
    ADD_FAILURE() << "no exception; expected: " << message;
  } catch (std::invalid_argument const& e) {
    EXPECT_EQ(std::string(e.what()), message);
  }
}

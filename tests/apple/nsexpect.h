#pragma once

#import <Foundation/Foundation.h>

#include <gtest/gtest.h>

namespace lumo::apple_testing {

inline const char* _Nonnull describe(id _Nullable object) {
  return object != nil ? [[object description] UTF8String] : "nil";
}

}  // namespace lumo::apple_testing

// Equality of Foundation objects, both described when it fails.
#define EXPECT_NSEQ(actual, expected)                                    \
  EXPECT_TRUE([(actual) isEqual:(expected)])                             \
      << "  actual: " << ::lumo::apple_testing::describe(actual) << "\n" \
      << "expected: " << ::lumo::apple_testing::describe(expected)

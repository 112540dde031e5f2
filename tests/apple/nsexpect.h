#pragma once

#import <Foundation/Foundation.h>

#include <gtest/gtest.h>

namespace lumo::apple_testing {

inline bool equal(NSObject* _Nullable actual, NSObject* _Nullable expected) {
  return [actual isEqual:expected];
}

inline const char* _Nonnull describe(NSObject* _Nullable object) {
  const char* text = object.description.UTF8String;
  return text != nullptr ? text : "nil";
}

}  // namespace lumo::apple_testing

// Equality of Foundation objects, both described when it fails.
#define EXPECT_NSEQ(actual, expected)                                    \
  EXPECT_TRUE(::lumo::apple_testing::equal((actual), (expected)))        \
      << "  actual: " << ::lumo::apple_testing::describe(actual) << "\n" \
      << "expected: " << ::lumo::apple_testing::describe(expected)

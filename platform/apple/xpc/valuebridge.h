#pragma once

// Conversion between the link's values and the property-list objects the
// connection carries.

#import <Foundation/Foundation.h>

#include <optional>
#include <string>

#include "xpc/xpcvalue.h"

NS_ASSUME_NONNULL_BEGIN

namespace tarvex::itx::xpc::apple_platform {

// Each number is made with the constructor of its kind (numberWithInt:,
// numberWithUnsignedInt:, numberWithUnsignedLongLong:, numberWithBool:, ...),
// which is what the daemon reads back. A property list has no nil and no
// text that is not UTF-8: such dictionary entries and array items are left
// out rather than failing the whole value.
NSNumber* toNSNumber(const Number& number);
NSDictionary* toNSDictionary(const Dictionary& dictionary);
NSArray* toNSArray(const Array& array);
// nil for Nil.
id _Nullable toObjC(const Value& value);

// nil, NSNull and classes outside the property-list set become Nil;
// dictionary entries under keys that are not strings are left out. A
// number keeps the kind its storage type says; booleans stay Bool, reals
// become LongLong (the link has no reals).
Value fromObjC(id _Nullable object);
Number fromNSNumber(NSNumber* number);
std::optional<std::string> fromNSString(NSString* _Nullable string);

}  // namespace tarvex::itx::xpc::apple_platform

NS_ASSUME_NONNULL_END

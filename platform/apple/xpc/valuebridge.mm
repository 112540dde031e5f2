#import "xpc/valuebridge.h"

#include <vector>

namespace tarvex::itx::xpc::apple_platform {

namespace {

NSString* _Nullable toNSString(const std::string& text) {
  // Not stringWithUTF8String: a string may hold a NUL, which must not
  // silently cut it short.
  return [[NSString alloc] initWithBytes:text.data()
                                  length:text.size()
                                encoding:NSUTF8StringEncoding];
}

// `object` as a T, nil when it is of another class.
template <typename T>
T* _Nullable as(id _Nullable object) {
  return [static_cast<NSObject*>(object) isKindOfClass:[T class]] ? static_cast<T*>(object) : nil;
}

bool isBoolean(NSNumber* number) {
  return CFGetTypeID((__bridge CFTypeRef)number) == CFBooleanGetTypeID();
}

}  // namespace

NSNumber* toNSNumber(const Number& number) {
  switch (number.kind) {
    case NumberKind::Int:
      return [NSNumber numberWithInt:static_cast<int32_t>(number.bits)];
    case NumberKind::UnsignedInt:
      return [NSNumber numberWithUnsignedInt:static_cast<uint32_t>(number.bits)];
    case NumberKind::LongLong:
      return [NSNumber numberWithLongLong:static_cast<int64_t>(number.bits)];
    case NumberKind::UnsignedLongLong:
      return [NSNumber numberWithUnsignedLongLong:number.bits];
    case NumberKind::Bool:
      return [NSNumber numberWithBool:number.bits != 0];
  }
  return [NSNumber numberWithUnsignedLongLong:number.bits];
}

NSDictionary* toNSDictionary(const Dictionary& dictionary) {
  std::vector<id> keys;
  std::vector<id> objects;
  keys.reserve(dictionary.size());
  objects.reserve(dictionary.size());
  for (const DictEntry& entry : dictionary.entries) {
    NSString* key = toNSString(entry.key);
    id object = toObjC(entry.value);
    if (key == nil || object == nil) continue;
    keys.push_back(key);
    objects.push_back(object);
  }
  return [NSDictionary dictionaryWithObjects:objects.data()
                                     forKeys:keys.data()
                                       count:objects.size()];
}

NSArray* toNSArray(const Array& array) {
  std::vector<id> objects;
  objects.reserve(array.items.size());
  for (const Value& item : array.items) {
    if (id object = toObjC(item)) objects.push_back(object);
  }
  return [NSArray arrayWithObjects:objects.data() count:objects.size()];
}

id _Nullable toObjC(const Value& value) {
  if (const std::string* text = value.string()) return toNSString(*text);
  if (const Number* number = value.number()) return toNSNumber(*number);
  if (const Dictionary* dictionary = value.dictionary()) return toNSDictionary(*dictionary);
  if (const Array* array = value.array()) return toNSArray(*array);
  return nil;
}

Number fromNSNumber(NSNumber* number) {
  if (isBoolean(number)) return Number::ofBool(number.boolValue);
  switch (number.objCType[0]) {
    case 'c':
    case 's':
    case 'i':
      return Number::ofInt(number.intValue);
    case 'C':
    case 'S':
    case 'I':
      return Number::ofUnsignedInt(number.unsignedIntValue);
    case 'L':
    case 'Q':
      return Number::ofUnsignedLongLong(number.unsignedLongLongValue);
    case 'B':
      return Number::ofBool(number.boolValue);
    default:  // 'l', 'q', and reals truncated
      return Number::ofLongLong(number.longLongValue);
  }
}

std::optional<std::string> fromNSString(NSString* _Nullable string) {
  if (string == nil) return std::nullopt;
  NSData* bytes = [string dataUsingEncoding:NSUTF8StringEncoding];
  if (bytes == nil) return std::string();
  return std::string(static_cast<const char*>(bytes.bytes), bytes.length);
}

Value fromObjC(id _Nullable object) {
  if (NSString* string = as<NSString>(object)) return Value(*fromNSString(string));
  if (NSNumber* number = as<NSNumber>(object)) return Value(fromNSNumber(number));
  if (NSDictionary* source = as<NSDictionary>(object)) {
    Dictionary dictionary;
    dictionary.entries.reserve(source.count);
    for (id key in source) {
      NSString* name = as<NSString>(key);
      if (name == nil) continue;
      dictionary.entries.push_back({*fromNSString(name), fromObjC(source[name])});
    }
    return Value(std::move(dictionary));
  }
  if (NSArray* source = as<NSArray>(object)) {
    Array array;
    array.items.reserve(source.count);
    for (id item in source) array.items.push_back(fromObjC(item));
    return Value(std::move(array));
  }
  return Value();
}

}  // namespace tarvex::itx::xpc::apple_platform

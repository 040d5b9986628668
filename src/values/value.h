// Typed values: every datum of a page is a Value held by a variable.
//
// One record serves every type; only the payload fields of its type are in
// use.  A Value has exactly one owner, so the record is move-only and copies
// are explicit (value_copy).  Conversions return new values.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "values/decimal.h"

enum ValueType : uint8_t {
  VT_EMPTY = 0,
  VT_INTEGER = 1,
  VT_DECIMAL = 2,
  VT_STRING = 3,
  VT_QUERY = 4,
  VT_NUMBER = 5,
  VT_LIST = 12,
  VT_ARRAY = 13,
  VT_HASH = 14,
};

struct Value;
using ValuePtr = std::unique_ptr<Value>;
using ValueRow = std::vector<ValuePtr>;

// A query result's handle on a result set.  The result-set table of the
// database layer defines ResultSet; values only share ownership of it.
struct ResultSet;
struct QueryPayload {
  std::shared_ptr<ResultSet> result;
  uint32_t current_row = 0;
  uint32_t built_row = 0;  // the row `row` was built for
  ValuePtr row;            // the current row as a hash, when built
};

// Forty-eight bytes: the type, a string's range or a table's column count,
// and one payload, whichever the type holds.  Only the member of the value's
// type may be used; value_set_type changes the type and the member with it.
struct Value {
  uint8_t type = VT_EMPTY;
  uint32_t start = 0, end = 0;  // VT_STRING: the range a reference selected
  uint32_t columns = 0;         // VT_ARRAY and VT_HASH
  union {
    double number = 0;                    // VT_NUMBER
    int32_t integer;                      // VT_INTEGER
    Decimal decimal;                      // VT_DECIMAL
    std::string bytes;                    // VT_STRING: the whole string
    std::vector<ValuePtr> list;           // VT_LIST
    std::vector<ValueRow> rows;           // VT_ARRAY and VT_HASH (hash: key, value)
    std::unique_ptr<QueryPayload> query;  // VT_QUERY
  };

  Value() {}
  Value(Value&& other) noexcept;
  Value& operator=(Value&& other) noexcept;
  // Records come from a free list: a page makes and drops values on every
  // pass of a loop.
  static void* operator new(size_t size);
  static void operator delete(void* p, size_t size);
  // Takes nested values apart with a work list rather than by recursion,
  // so a value nested any depth is freed without exhausting the stack.
  ~Value();
};
static_assert(sizeof(Value) <= 48, "a value is six machine words at most");

// Makes `v` an empty value of `type`: what it held is released and the
// member of the new type made (an empty string, list or table, 0).
void value_set_type(Value& v, uint8_t type);

// Copying and printing recurse into nested lists and tables; below this
// depth the nested parts are left out, so no page can exhaust the stack.
constexpr int kMaxValueNesting = 2000;


ValuePtr value_new();
void value_free(ValuePtr v);
ValuePtr value_copy(const Value& v);
// Copies `src` into `dest`; a destination string with a selected range
// has only that range replaced.  Returns false for null arguments.
bool value_assign(Value* dest, const Value* src);
// value_assign of a floating-point number, without making a value for it.
void value_set_number(Value* dest, double d);
// Releases the payload and derived value and makes the value empty.
void value_clear(Value& v);

ValuePtr value_from_integer(int32_t n);
ValuePtr value_from_number(double d);
ValuePtr value_from_decimal(Decimal d);
ValuePtr value_from_string(std::string bytes);

// Conversions; each returns a new value.
ValuePtr value_to_string(const Value& v);
ValuePtr value_to_number(const Value& v);
ValuePtr value_to_list(const Value& v);
ValuePtr value_to_array(const Value& v);
ValuePtr value_to_hash(const Value& v);

// The string form as bytes: what a tag's value prints as.  The element form
// ignores a string's range and gives all of its bytes.
std::string value_text(const Value& v);
std::string value_element_text(const Value& v);
// The numeric kinds (integer, decimal, floating-point).
bool value_is_numeric(const Value& v);

// Hash operations.  hash_add_key stores a new empty value under `key`, after
// any equal keys, and returns it; null when `hash` is not a hash.
Value* hash_add_key(Value* hash, std::string_view key);
Value* hash_find(Value* hash, std::string_view key);
Value* hash_find_exact(Value* hash, std::string_view key);

// Orderings of byte strings: negative, zero or positive.
int compare_bytes(std::string_view a, std::string_view b);
int compare_bytes_nocase(std::string_view a, std::string_view b);
int compare_natural(std::string_view a, std::string_view b);
int compare_natural_nocase(std::string_view a, std::string_view b);

// Number printing as pages see it: "%.15lf" and "%li".
std::string format_number(double d);
std::string format_integer(int64_t n);
// Digits with an optional "." and fraction ("12", "3.5", ".5"), read as a
// correctly rounded double; anything else reads as 0.
double parse_unsigned_decimal(std::string_view digits, bool negative = false);

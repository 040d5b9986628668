// Typed values: creation, copy, assignment, conversions, hashes.
#include "values/value.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "base/encoders.h"
#include "base/memory_budget.h"


namespace {

// A string range may reach past the stored bytes; the gap reads as zero
// bytes.  A page can set the range from an expression, so the gap is capped
// to keep a stray strstartpos from asking for gigabytes.
constexpr uint64_t kMaxRangeGap = uint64_t{1} << 24;

// ---------------------------------------------------------------- copying

// The payload member of `type`, made in a value that holds none.
void make_payload(Value& v, uint8_t type) {
  switch (type) {
    case VT_DECIMAL: new (&v.decimal) Decimal(); break;
    case VT_STRING: new (&v.bytes) std::string(); break;
    case VT_LIST: new (&v.list) std::vector<ValuePtr>(); break;
    case VT_ARRAY:
    case VT_HASH: new (&v.rows) std::vector<ValueRow>(); break;
    case VT_QUERY: new (&v.query) std::unique_ptr<QueryPayload>(); break;
    default: v.number = 0; break;
  }
  v.type = type;
}

// Ends the payload member's life; nested values must have been taken out
// already (see take_children).  The value is left empty.
void drop_payload(Value& v) {
  switch (v.type) {
    case VT_DECIMAL: v.decimal.~Decimal(); break;
    case VT_STRING: v.bytes.~basic_string(); break;
    case VT_LIST: v.list.~vector(); break;
    case VT_ARRAY:
    case VT_HASH: v.rows.~vector(); break;
    case VT_QUERY: v.query.~unique_ptr(); break;
    default: break;
  }
  v.type = VT_EMPTY;
  v.number = 0;
  v.start = v.end = v.columns = 0;
}

bool holds_children(const Value& v) {
  return v.type == VT_LIST || v.type == VT_ARRAY || v.type == VT_HASH || v.type == VT_QUERY;
}

// Moves the nested values of `v` that hold values themselves to `pending`,
// and frees the others at once, so that freeing `v` recurses no further and
// `pending` stays short for a long list of plain values.
void take_children(Value& v, std::vector<ValuePtr>& pending) {
  auto take = [&pending](ValuePtr& e) {
    if (!e) return;
    if (holds_children(*e))
      pending.push_back(std::move(e));
    else
      e.reset();
  };
  switch (v.type) {
    case VT_LIST:
      for (ValuePtr& e : v.list) take(e);
      v.list.clear();
      break;
    case VT_ARRAY:
    case VT_HASH:
      for (ValueRow& row : v.rows)
        for (ValuePtr& c : row) take(c);
      v.rows.clear();
      break;
    case VT_QUERY:
      if (v.query && v.query->row) take(v.query->row);
      break;
    default:
      break;
  }
}

// Releases everything `v` holds, nested values included, without recursion.
void release(Value& v) {
  if (holds_children(v)) {
    // Freeing must not fail for want of the work list's memory.
    MemoryReleaseScope releasing;
    std::vector<ValuePtr> pending;
    take_children(v, pending);
    while (!pending.empty()) {
      ValuePtr child = std::move(pending.back());
      pending.pop_back();
      take_children(*child, pending);
    }
  }
  drop_payload(v);
}

// Copies the payload of `from` (by its type) into the empty value `to`.
void copy_payload(const Value& from, Value& to) {
  make_payload(to, from.type);
  switch (from.type) {
    case VT_INTEGER:
      to.integer = from.integer;
      return;
    case VT_NUMBER:
      to.number = from.number;
      return;
    case VT_DECIMAL:
      to.decimal = from.decimal;
      return;
    case VT_STRING:
      to.bytes = from.bytes;
      to.start = from.start;
      to.end = from.end;
      return;
    case VT_QUERY:
      if (from.query) {
        // A second handle on the same result set; the row is our own.
        to.query = std::make_unique<QueryPayload>();
        to.query->result = from.query->result;
        to.query->current_row = from.query->current_row;
        to.query->built_row = from.query->built_row;
        if (from.query->row) to.query->row = value_copy(*from.query->row);
      }
      return;
    case VT_LIST:
      to.list.reserve(from.list.size());
      for (const ValuePtr& e : from.list) to.list.push_back(e ? value_copy(*e) : value_new());
      return;
    case VT_ARRAY:
    case VT_HASH:
      to.columns = from.columns;
      to.rows.reserve(from.rows.size());
      for (const ValueRow& row : from.rows) {
        ValueRow& out = to.rows.emplace_back();
        out.reserve(row.size());
        for (const ValuePtr& c : row) out.push_back(c ? value_copy(*c) : value_new());
      }
      return;
    default:
      return;
  }
}

// Moves the payload of `from` into the empty value `to`; `from` is left
// empty.
void move_payload(Value& from, Value& to) {
  make_payload(to, from.type);
  to.start = from.start;
  to.end = from.end;
  to.columns = from.columns;
  switch (from.type) {
    case VT_INTEGER: to.integer = from.integer; break;
    case VT_NUMBER: to.number = from.number; break;
    case VT_DECIMAL: to.decimal = std::move(from.decimal); break;
    case VT_STRING: to.bytes = std::move(from.bytes); break;
    case VT_LIST: to.list = std::move(from.list); break;
    case VT_ARRAY:
    case VT_HASH: to.rows = std::move(from.rows); break;
    case VT_QUERY: to.query = std::move(from.query); break;
    default: break;
  }
  drop_payload(from);
}

// ------------------------------------------------------------ string form

// Appends the selected range of a string; bytes past the end are zeros.
void append_range(const Value& v, std::string& out) {
  uint64_t len = v.bytes.size();
  uint64_t start = v.start, end = v.end;
  if (end <= start) return;
  end = std::min(end, len + kMaxRangeGap);
  if (start < len) out.append(v.bytes, start, std::min(end, len) - start);
  uint64_t gap_from = std::max(start, len);
  if (end > gap_from) out.append(end - gap_from, '\0');
}

void append_text(const Value& v, bool whole, std::string& out);

void append_encoded_cell(const Value* cell, std::string& out) {
  if (!cell) return;
  std::string text;
  append_text(*cell, true, text);
  out += url_encode(text);
}

void append_text(const Value& v, bool whole, std::string& out) {
  static int depth = 0;
  if (depth >= kMaxValueNesting) return;
  struct Nest {
    Nest() { ++depth; }
    ~Nest() { --depth; }
  } nest;
  switch (v.type) {
    case VT_INTEGER:
      out += format_integer(v.integer);
      return;
    case VT_DECIMAL:
      out += decimal_to_text(v.decimal);
      return;
    case VT_STRING:
      if (whole) out += v.bytes;
      else append_range(v, out);
      return;
    case VT_QUERY:
      if (v.query && v.query->row) append_text(*v.query->row, false, out);
      return;
    case VT_NUMBER:
      out += format_number(v.number);
      return;
    case VT_LIST:
      for (size_t i = 0; i < v.list.size(); i++) {
        if (i) out += '&';
        append_encoded_cell(v.list[i].get(), out);
      }
      return;
    case VT_ARRAY:
    case VT_HASH:
      for (size_t r = 0; r < v.rows.size(); r++) {
        std::string row_text;
        for (size_t c = 0; c < v.rows[r].size(); c++) {
          if (c) row_text += '&';
          append_encoded_cell(v.rows[r][c].get(), row_text);
        }
        if (r) out += '&';
        out += url_encode(row_text);
      }
      return;
    default:
      return;
  }
}

// ------------------------------------------------------------ number form

bool is_space(unsigned char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }
bool is_digit(unsigned char c) { return c >= '0' && c <= '9'; }

// The leading numeric part of `text`: white space, an optional sign, digits,
// an optional "." and digits.  Exponents, "inf", "nan" and hexadecimal are
// not numbers here, so the floating-point and decimal readers agree.
double read_double(std::string_view text) {
  size_t i = 0;
  while (i < text.size() && is_space(text[i])) i++;
  bool negative = false;
  if (i < text.size() && (text[i] == '-' || text[i] == '+')) negative = text[i++] == '-';
  size_t from = i;
  while (i < text.size() && is_digit(text[i])) i++;
  if (i < text.size() && text[i] == '.') {
    i++;
    while (i < text.size() && is_digit(text[i])) i++;
  }
  return parse_unsigned_decimal(text.substr(from, i - from), negative);
}

// Text up to its first zero byte, as the number readers see it.
std::string_view until_nul(std::string_view text) {
  size_t nul = text.find('\0');
  return nul == std::string_view::npos ? text : text.substr(0, nul);
}

ValuePtr zero_number() {
  return number_mode().decimal ? value_from_decimal(Decimal()) : value_from_number(0);
}

// ------------------------------------------------------------------ hashes

std::string_view key_of(const ValueRow& row) {
  if (row.empty() || !row[0] || row[0]->type != VT_STRING) return {};
  return row[0]->bytes;
}

Value* value_cell(ValueRow& row) { return row.size() > 1 ? row[1].get() : nullptr; }

// Index of some row whose key matches case-insensitively, or -1.
long hash_search(const Value& hash, std::string_view key) {
  long lo = 0, hi = static_cast<long>(hash.rows.size()) - 1;
  while (lo <= hi) {
    long mid = lo + (hi - lo) / 2;
    int c = compare_bytes_nocase(key_of(hash.rows[mid]), key);
    if (c == 0) return mid;
    if (c < 0) lo = mid + 1;
    else hi = mid - 1;
  }
  return -1;
}

ValuePtr new_hash() {
  ValuePtr h = value_new();
  value_set_type(*h, VT_HASH);
  h->columns = 2;
  return h;
}

void add_hash_row(Value& hash, std::string key, ValuePtr value) {
  ValueRow& row = hash.rows.emplace_back();
  row.push_back(value_from_string(std::move(key)));
  row.push_back(std::move(value));
}

}  // namespace

// ----------------------------------------------------------- construction

// ---------------------------------------------------------------------------
// Records

namespace {

// Records are carved from slabs of a thousand and kept on a free list when
// freed: no allocator header per record (a list of a million numbers costs
// 48 bytes an element plus its pointer) and no allocator call on the pass
// of a loop.  Slabs are kept for the life of the process, so its memory
// stays at the largest a page has needed, and is reused.  Builds with
// AddressSanitizer use the ordinary allocator, which it watches.
#if defined(__SANITIZE_ADDRESS__)
constexpr bool kSlabs = false;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
constexpr bool kSlabs = false;
#else
constexpr bool kSlabs = true;
#endif
#else
constexpr bool kSlabs = true;
#endif

constexpr size_t kSlabRecords = 1024;

struct FreeRecord {
  FreeRecord* next;
};
FreeRecord* free_records = nullptr;
char* slab_next = nullptr;
char* slab_end = nullptr;

}  // namespace

void* Value::operator new(size_t size) {
  if (!kSlabs || size != sizeof(Value)) return ::operator new(size);
  if (free_records) {
    FreeRecord* r = free_records;
    free_records = r->next;
    return r;
  }
  if (slab_next == slab_end) {
    slab_next = static_cast<char*>(::operator new(kSlabRecords * sizeof(Value)));
    slab_end = slab_next + kSlabRecords * sizeof(Value);
  }
  void* record = slab_next;
  slab_next += sizeof(Value);
  return record;
}

void Value::operator delete(void* p, size_t size) {
  if (!p) return;
  if (!kSlabs || size != sizeof(Value)) {
    ::operator delete(p);
    return;
  }
  FreeRecord* r = static_cast<FreeRecord*>(p);
  r->next = free_records;
  free_records = r;
}

ValuePtr value_new() { return std::make_unique<Value>(); }

void value_free(ValuePtr v) { v.reset(); }

ValuePtr value_copy(const Value& v) {
  static int depth = 0;
  ValuePtr out = value_new();
  if (depth >= kMaxValueNesting) return out;
  // Restored also when an allocation fails part way through the copy.
  struct Nest {
    Nest() { ++depth; }
    ~Nest() { --depth; }
  } nest;
  copy_payload(v, *out);
  return out;
}

Value::Value(Value&& other) noexcept { move_payload(other, *this); }

Value& Value::operator=(Value&& other) noexcept {
  if (this != &other) {
    Value taken(std::move(other));  // `other` may live inside this value
    release(*this);
    move_payload(taken, *this);
  }
  return *this;
}

Value::~Value() { release(*this); }

void value_set_type(Value& v, uint8_t type) {
  release(v);
  make_payload(v, type);
}

void value_set_number(Value* dest, double d) {
  if (dest->type == VT_EMPTY || dest->type == VT_INTEGER || dest->type == VT_NUMBER) {
    dest->type = VT_NUMBER;
    dest->number = d;
    return;
  }
  Value number;
  value_set_type(number, VT_NUMBER);
  number.number = d;
  value_assign(dest, &number);
}

void value_clear(Value& v) { release(v); }

ValuePtr value_from_integer(int32_t n) {
  ValuePtr v = value_new();
  value_set_type(*v, VT_INTEGER);
  v->integer = n;
  return v;
}

ValuePtr value_from_number(double d) {
  ValuePtr v = value_new();
  value_set_type(*v, VT_NUMBER);
  v->number = d;
  return v;
}

ValuePtr value_from_decimal(Decimal d) {
  ValuePtr v = value_new();
  value_set_type(*v, VT_DECIMAL);
  v->decimal = std::move(d);
  return v;
}

ValuePtr value_from_string(std::string bytes) {
  ValuePtr v = value_new();
  value_set_type(*v, VT_STRING);
  v->end = static_cast<uint32_t>(std::min<size_t>(bytes.size(), UINT32_MAX));
  v->bytes = std::move(bytes);
  return v;
}

bool value_is_numeric(const Value& v) {
  return v.type == VT_INTEGER || v.type == VT_DECIMAL || v.type == VT_NUMBER;
}

// -------------------------------------------------------------- assignment

bool value_assign(Value* dest, const Value* src) {
  if (!dest || !src) return false;
  if (dest == src) return true;

  // Source text or copy first: `src` may live inside `dest` (an element,
  // the query row, the derived value) and die when dest is released.
  if (dest->type == VT_STRING && (dest->start != 0 || dest->end != dest->bytes.size())) {
    uint64_t len = dest->bytes.size(), start = dest->start, end = dest->end;
    if (start > len + kMaxRangeGap) return false;
    std::string text = value_text(*src);
    std::string joined;
    joined.reserve(std::max(start, len) + text.size());
    joined.append(dest->bytes, 0, std::min(start, len));
    if (start > len) joined.append(start - len, '\0');
    joined += text;
    if (end < len) joined.append(dest->bytes, end, len - end);
    dest->bytes = std::move(joined);
    return true;
  }

  bool plain_src = src->type == VT_EMPTY || src->type == VT_INTEGER || src->type == VT_NUMBER;
  bool plain_dest = dest->type == VT_EMPTY || dest->type == VT_INTEGER || dest->type == VT_NUMBER;
  if (plain_src && plain_dest) {
    // Loop counters and sums: nothing to release, nothing to allocate.
    dest->type = src->type;
    if (src->type == VT_INTEGER)
      dest->integer = src->integer;
    else
      dest->number = src->type == VT_NUMBER ? src->number : 0;
    return true;
  }

  if (src->type == VT_STRING) {
    std::string text = value_text(*src);
    Value fresh;
    value_set_type(fresh, VT_STRING);
    fresh.end = static_cast<uint32_t>(std::min<size_t>(text.size(), UINT32_MAX));
    fresh.bytes = std::move(text);
    release(*dest);
    move_payload(fresh, *dest);
    return true;
  }

  Value fresh;
  copy_payload(*src, fresh);
  release(*dest);
  move_payload(fresh, *dest);
  return true;
}

// ------------------------------------------------------------- string form

std::string value_text(const Value& v) {
  // The common case, a string selected whole, is one copy of its bytes.
  if (v.type == VT_STRING && v.start == 0 && v.end == v.bytes.size()) return v.bytes;
  std::string out;
  append_text(v, false, out);
  return out;
}

std::string value_element_text(const Value& v) {
  if (v.type == VT_STRING) return v.bytes;
  std::string out;
  append_text(v, true, out);
  return out;
}

ValuePtr value_to_string(const Value& v) { return value_from_string(value_text(v)); }

std::string format_number(double d) {
  // Whole numbers below 1e15 print exactly as their integer, so skip the
  // slow general formatter for them (loop counters, sizes, sums).
  if (d == std::trunc(d) && std::fabs(d) < 1e15 && !(d == 0 && std::signbit(d))) {
    std::string out = format_integer(static_cast<int64_t>(d));
    out += ".000000000000000";
    return out;
  }
  char buf[400];  // the largest double has 309 integer digits
  if (std::isfinite(d)) {
    // Exact and correctly rounded like printf, at a tenth of its cost.
    auto res = std::to_chars(buf, buf + sizeof buf, d, std::chars_format::fixed, 15);
    if (res.ec == std::errc()) return std::string(buf, res.ptr);
  }
  int n = std::snprintf(buf, sizeof buf, "%.15lf", d);
  if (n < 0) return {};
  return std::string(buf, std::min<size_t>(n, sizeof buf - 1));
}

namespace {

// Digits with at most one ".", whose significant digits fit in 15 and whose
// fraction (without trailing zeros) has at most 22 digits: the integer of
// the digits and the power of ten are both exact doubles, so one division
// gives the correctly rounded result, as from_chars would.  Most numbers
// read back are printed "%.15lf" integers or short fractions.
bool parse_short_decimal(std::string_view digits, double* out) {
  static constexpr double kPowers[] = {1e0,  1e1,  1e2,  1e3,  1e4,  1e5,  1e6,  1e7,
                                       1e8,  1e9,  1e10, 1e11, 1e12, 1e13, 1e14, 1e15,
                                       1e16, 1e17, 1e18, 1e19, 1e20, 1e21, 1e22};
  size_t point = digits.size();
  size_t end = digits.size();
  for (size_t i = 0; i < digits.size(); i++) {
    char c = digits[i];
    if (c == '.') {
      if (point != digits.size()) return false;
      point = i;
    } else if (c < '0' || c > '9') {
      return false;
    }
  }
  if (point != digits.size())
    while (end > point + 1 && digits[end - 1] == '0') end--;
  size_t fraction = point < end ? end - point - 1 : 0;
  if (fraction > 22) return false;
  uint64_t n = 0;
  unsigned significant = 0;
  bool any_digit = false;
  for (size_t i = 0; i < end; i++) {
    if (i == point) continue;
    any_digit = true;
    unsigned d = static_cast<unsigned>(digits[i] - '0');
    if (n == 0 && d == 0) continue;
    if (++significant > 15) return false;
    n = n * 10 + d;
  }
  if (!any_digit) return false;
  *out = static_cast<double>(n) / kPowers[fraction];
  return true;
}

}  // namespace

double parse_unsigned_decimal(std::string_view digits, bool negative) {
  double quick;
  if (parse_short_decimal(digits, &quick)) return negative ? -quick : quick;
  // from_chars rounds correctly like strtod and is several times faster;
  // only numbers beyond the double range go the slow way (to infinity).
  double d = 0;
  auto res = std::from_chars(digits.data(), digits.data() + digits.size(), d, std::chars_format::fixed);
  if (res.ec == std::errc::result_out_of_range) {
    std::string copy(digits);
    d = std::strtod(copy.c_str(), nullptr);
  } else if (res.ec != std::errc()) {
    d = 0;
  }
  return negative ? -d : d;
}

std::string format_integer(int64_t n) {
  char buf[24];
  auto res = std::to_chars(buf, buf + sizeof buf, n);
  return std::string(buf, res.ptr);
}

// ------------------------------------------------------------- number form

// A string is read from its selected range (its string form), up to the
// first zero byte.
ValuePtr value_to_number(const Value& value) {
  const Value* v = &value;
  // A list stands for its first element, an array or hash for cell (0, 1).
  for (;;) {
    if (v->type == VT_LIST) {
      if (v->list.empty() || !v->list[0]) return zero_number();
      v = v->list[0].get();
    } else if (v->type == VT_ARRAY || v->type == VT_HASH) {
      if (v->rows.empty() || v->rows[0].size() < 2 || !v->rows[0][1]) return zero_number();
      v = v->rows[0][1].get();
    } else {
      break;
    }
  }
  switch (v->type) {
    case VT_INTEGER:
      return number_mode().decimal ? value_from_decimal(decimal_from_int(v->integer))
                          : value_from_number(v->integer);
    case VT_STRING: {
      bool whole = v->start == 0 && v->end == v->bytes.size();
      std::string text = whole ? std::string() : value_text(*v);
      std::string_view digits = until_nul(whole ? std::string_view(v->bytes) : text);
      return number_mode().decimal ? value_from_decimal(decimal_from_text(digits))
                          : value_from_number(read_double(digits));
    }
    case VT_DECIMAL:
      // Off decimal mode only the integer part survives.
      return number_mode().decimal ? value_from_decimal(v->decimal)
                          : value_from_number(read_double(decimal_integer_text(v->decimal)));
    case VT_NUMBER:
      return number_mode().decimal ? value_from_decimal(decimal_from_double(v->number))
                          : value_from_number(v->number);
    default:
      return zero_number();
  }
}

// ----------------------------------------------------- list, hash, array

ValuePtr value_to_list(const Value& v) {
  ValuePtr out = value_new();
  value_set_type(*out, VT_LIST);
  switch (v.type) {
    case VT_INTEGER:
    case VT_DECIMAL:
    case VT_STRING:
    case VT_NUMBER:
      out->list.push_back(value_copy(v));
      break;
    case VT_QUERY:
      if (v.query && v.query->row) return value_to_list(*v.query->row);
      break;
    case VT_LIST:
      value_clear(*out);
      copy_payload(v, *out);
      break;
    case VT_ARRAY:
      for (const ValueRow& row : v.rows) {
        ValuePtr cells = value_new();
        value_set_type(*cells, VT_LIST);
        for (const ValuePtr& c : row) cells->list.push_back(c ? value_copy(*c) : value_new());
        out->list.push_back(std::move(cells));
      }
      break;
    case VT_HASH:
      for (const ValueRow& row : v.rows) {
        const Value* cell = row.size() > 1 ? row[1].get() : nullptr;
        out->list.push_back(cell ? value_copy(*cell) : value_new());
      }
      break;
    default:
      break;
  }
  return out;
}

ValuePtr value_to_hash(const Value& v) {
  ValuePtr out = new_hash();
  switch (v.type) {
    case VT_EMPTY:
      return out;
    case VT_QUERY:
      if (v.query && v.query->row) return value_to_hash(*v.query->row);
      return out;
    case VT_LIST:
      out->rows.reserve(v.list.size());
      for (const ValuePtr& e : v.list) add_hash_row(*out, e ? value_element_text(*e) : std::string(), value_new());
      break;
    case VT_ARRAY:
    case VT_HASH:
      out->rows.reserve(v.rows.size());
      for (const ValueRow& row : v.rows) {
        std::string key = !row.empty() && row[0] ? value_element_text(*row[0]) : std::string();
        ValuePtr cell;
        if (v.columns == 2) {
          cell = row.size() > 1 && row[1] ? value_copy(*row[1]) : value_new();
        } else if (v.columns >= 3) {
          cell = value_new();
          value_set_type(*cell, VT_LIST);
          for (size_t c = 1; c < v.columns; c++)
            cell->list.push_back(c < row.size() && row[c] ? value_copy(*row[c]) : value_new());
        } else {
          cell = value_new();
        }
        add_hash_row(*out, std::move(key), std::move(cell));
      }
      break;
    default:
      add_hash_row(*out, value_text(v), value_new());
      break;
  }
  std::stable_sort(out->rows.begin(), out->rows.end(), [](const ValueRow& a, const ValueRow& b) {
    return compare_bytes_nocase(key_of(a), key_of(b)) < 0;
  });
  return out;
}

ValuePtr value_to_array(const Value& v) {
  ValuePtr out = value_new();
  value_set_type(*out, VT_ARRAY);
  switch (v.type) {
    case VT_QUERY:
      if (v.query && v.query->row) return value_to_array(*v.query->row);
      break;
    case VT_LIST: {
      ValueRow& row = out->rows.emplace_back();
      for (const ValuePtr& e : v.list) row.push_back(e ? value_copy(*e) : value_new());
      out->columns = static_cast<uint32_t>(row.size());
      break;
    }
    case VT_ARRAY:
    case VT_HASH:
      value_clear(*out);
      copy_payload(v, *out);
      out->type = VT_ARRAY;  // the same table, read as an array
      break;
    default: {
      ValueRow& row = out->rows.emplace_back();
      row.push_back(value_copy(v));
      out->columns = 1;
      break;
    }
  }
  return out;
}

// ------------------------------------------------------------------ hashes

Value* hash_add_key(Value* hash, std::string_view key) {
  if (!hash || hash->type != VT_HASH) return nullptr;
  hash->columns = 2;
  // After every key that compares equal or less: the rows stay sorted and
  // duplicates keep their order of arrival.
  auto at = std::upper_bound(hash->rows.begin(), hash->rows.end(), key,
                             [](std::string_view k, const ValueRow& row) {
                               return compare_bytes_nocase(k, key_of(row)) < 0;
                             });
  ValueRow row;
  row.push_back(value_from_string(std::string(key)));
  row.push_back(value_new());
  Value* cell = row[1].get();
  hash->rows.insert(at, std::move(row));
  return cell;
}

Value* hash_find(Value* hash, std::string_view key) {
  if (!hash || hash->type != VT_HASH) return nullptr;
  long at = hash_search(*hash, key);
  return at < 0 ? nullptr : value_cell(hash->rows[at]);
}

Value* hash_find_exact(Value* hash, std::string_view key) {
  if (!hash || hash->type != VT_HASH) return nullptr;
  long at = hash_search(*hash, key);
  if (at < 0) return nullptr;
  while (at > 0 && compare_bytes_nocase(key_of(hash->rows[at - 1]), key) == 0) at--;
  for (size_t i = at; i < hash->rows.size(); i++) {
    std::string_view k = key_of(hash->rows[i]);
    if (compare_bytes_nocase(k, key) != 0) break;
    if (compare_bytes(k, key) == 0) return value_cell(hash->rows[i]);
  }
  return nullptr;
}

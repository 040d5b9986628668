// The two arithmetic evaluators: text rewriting by parentheses, ?: and passes.
//
// Every step rewrites text into text: a parenthesised group or an operation
// is replaced by its printed result, and the next step reads that print
// back.  The round trip is part of the arithmetic (0.1+0.2 prints as
// 0.300000000000000 and is read back as 0.3), so the passes work on text
// rather than on parsed numbers.  Each step is one left-to-right scan;
// nothing recurses with the depth of the input.
#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <type_traits>
#include <vector>

#include "values/arithmetic.h"

#include "values/value.h"

bool arithmetic_shortcuts = true;

namespace {

// The status of the evaluation under way (the evaluators do not nest).
uint8_t eval_status = 0;

enum Op : uint8_t {
  OP_NOT, OP_BITNOT,
  OP_MUL, OP_DIV, OP_MOD,
  OP_ADD, OP_SUB,
  OP_SHL, OP_SHR,
  OP_LT, OP_GT, OP_LE, OP_GE,
  OP_EQ, OP_NE,
  OP_BITAND, OP_BITXOR, OP_BITOR,
  OP_AND, OP_XOR, OP_OR,
  OP_OTHER,  // ':' left over, or a byte no pass knows
};

constexpr uint32_t bit(Op op) { return 1u << op; }

// The binary levels from the tightest to the loosest; unary "!" and "~"
// run before them all.
constexpr uint32_t kLevels[] = {
    bit(OP_MUL) | bit(OP_DIV) | bit(OP_MOD),
    bit(OP_ADD) | bit(OP_SUB),
    bit(OP_SHL) | bit(OP_SHR),
    bit(OP_LT) | bit(OP_GT) | bit(OP_LE) | bit(OP_GE),
    bit(OP_EQ) | bit(OP_NE),
    bit(OP_BITAND), bit(OP_BITXOR), bit(OP_BITOR),
    bit(OP_AND), bit(OP_XOR), bit(OP_OR),
};
constexpr uint32_t kIntegerOps = bit(OP_SHL) | bit(OP_SHR) | bit(OP_BITAND) | bit(OP_BITXOR) |
                                 bit(OP_BITOR) | bit(OP_AND) | bit(OP_XOR) | bit(OP_OR);

// Buffers kept between evaluations so that a loop condition evaluated on
// every pass allocates nothing once they have grown.  Evaluation never
// re-enters itself, so one set serves both evaluators.
struct Scratch {
  std::string stripped;
  std::string pass_a, pass_b;
  std::string result;             // one operation's printed result
  std::vector<std::string> groups;  // one text per open parenthesis
  std::vector<uint32_t> colon_of;   // per "?": its matching ":" or npos
  std::vector<uint32_t> open;       // "?" positions still unmatched
};

Scratch& scratch() {
  static Scratch s;
  return s;
}

constexpr uint32_t kNoColon = UINT32_MAX;

bool is_digit(char c) { return c >= '0' && c <= '9'; }
bool is_space(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

struct Token {
  bool number = false;
  Op op = OP_OTHER;
  size_t len = 0;
};

// Digits, then "." and digits, with at least one digit somewhere.
size_t unsigned_number_length(std::string_view t, size_t pos) {
  size_t i = pos;
  bool digits = false;
  while (i < t.size() && is_digit(t[i])) i++, digits = true;
  if (i < t.size() && t[i] == '.') {
    size_t j = i + 1;
    while (j < t.size() && is_digit(t[j])) j++, digits = true;
    if (digits) i = j;
  }
  return digits ? i - pos : 0;
}

Token lex(std::string_view t, size_t pos) {
  Token tok;
  char c = t[pos];
  // A sign belongs to the number when it opens the text or follows an
  // operator; after a number it is the operator itself.
  bool sign_place = pos == 0 || (!is_digit(t[pos - 1]) && t[pos - 1] != '.');
  size_t n = unsigned_number_length(t, (c == '+' || c == '-') && sign_place ? pos + 1 : pos);
  if (n > 0) {
    tok.number = true;
    tok.len = n + ((c == '+' || c == '-') ? 1 : 0);
    return tok;
  }
  char d = pos + 1 < t.size() ? t[pos + 1] : '\0';
  tok.len = 1;
  auto two = [&](Op op) { tok.op = op, tok.len = 2; };
  switch (c) {
    case '!': d == '=' ? two(OP_NE) : void(tok.op = OP_NOT); break;
    case '~': tok.op = OP_BITNOT; break;
    case '*': tok.op = OP_MUL; break;
    case '/': tok.op = OP_DIV; break;
    case '%': tok.op = OP_MOD; break;
    case '+': tok.op = OP_ADD; break;
    case '-': tok.op = OP_SUB; break;
    case '<': d == '<' ? two(OP_SHL) : d == '=' ? two(OP_LE) : void(tok.op = OP_LT); break;
    case '>': d == '>' ? two(OP_SHR) : d == '=' ? two(OP_GE) : void(tok.op = OP_GT); break;
    case '=': d == '=' ? two(OP_EQ) : void(tok.op = OP_EQ); break;
    case '&': d == '&' ? two(OP_AND) : void(tok.op = OP_BITAND); break;
    case '^': d == '^' ? two(OP_XOR) : void(tok.op = OP_BITXOR); break;
    case '|': d == '|' ? two(OP_OR) : void(tok.op = OP_BITOR); break;
    default: break;
  }
  return tok;
}

// The leading integer of a number's text, saturated to 64 bits the way
// strtoll reads it, then kept modulo 2^32.
uint32_t read_u32(std::string_view t) {
  size_t i = 0;
  bool negative = false;
  if (i < t.size() && (t[i] == '+' || t[i] == '-')) negative = t[i++] == '-';
  uint64_t v = 0;
  bool saturated = false;
  for (; i < t.size() && is_digit(t[i]); i++) {
    if (v > (UINT64_MAX - 9) / 10) saturated = true;
    if (!saturated) v = v * 10 + uint64_t(t[i] - '0');
  }
  int64_t s;
  if (negative)
    s = saturated || v > uint64_t(INT64_MAX) + 1 ? INT64_MIN : int64_t(0 - v);
  else
    s = saturated || v > uint64_t(INT64_MAX) ? INT64_MAX : int64_t(v);
  return uint32_t(uint64_t(s));
}

void append_u32(std::string& out, uint32_t v) {
  char buf[16];
  auto res = std::to_chars(buf, buf + sizeof buf, v);
  out.append(buf, res.ptr);
}

// Number kinds: reading, printing and arithmetic by overloading, so one
// template serves both evaluators.
void read_number(std::string_view t, double& out) {
  bool negative = false;
  if (!t.empty() && (t[0] == '-' || t[0] == '+')) {
    negative = t[0] == '-';
    t.remove_prefix(1);
  }
  // Only digits or "." may follow the sign, as for strtod.
  out = !t.empty() && (is_digit(t[0]) || t[0] == '.') ? parse_unsigned_decimal(t, negative) : 0;
}
void read_number(std::string_view t, Decimal& out) { out = decimal_from_text(t); }

void append_number(std::string& out, double d) { out += format_number(d); }
void append_number(std::string& out, const Decimal& d) { out += decimal_to_text(d); }

bool is_zero(double d) { return d == 0; }
bool is_zero(const Decimal& d) { return decimal_is_zero(d); }

// False for a zero divisor.
bool arithmetic(Op op, double a, double b, double& r) {
  switch (op) {
    case OP_MUL: r = a * b; return true;
    case OP_DIV: if (b == 0) return false; r = a / b; return true;
    case OP_MOD:
      if (b == 0) return false;
      // Whole operands well inside the exact range: the remainder of the
      // integers, with the dividend's sign (a zero one too, as fmod gives).
      if (std::fabs(a) < 9e15 && std::fabs(b) < 9e15 && a == double(int64_t(a)) && b == double(int64_t(b))) {
        int64_t m = int64_t(a) % int64_t(b);
        r = m == 0 ? (a < 0 || (a == 0 && std::signbit(a)) ? -0.0 : 0.0) : double(m);
        return true;
      }
      r = std::fmod(a, b);
      return true;
    case OP_ADD: r = a + b; return true;
    default: r = a - b; return true;
  }
}
bool arithmetic(Op op, const Decimal& a, const Decimal& b, Decimal& r) {
  switch (op) {
    case OP_MUL: r = decimal_mul(a, b); return true;
    case OP_DIV: return decimal_div(a, b, &r);
    case OP_MOD: return decimal_mod(a, b, &r);
    case OP_ADD: r = decimal_add(a, b); return true;
    default: r = decimal_sub(a, b); return true;
  }
}

bool relation(Op op, double a, double b) {
  switch (op) {
    case OP_LT: return a < b;
    case OP_GT: return a > b;
    case OP_LE: return a <= b;
    case OP_GE: return a >= b;
    case OP_EQ: return a == b;
    default: return a != b;
  }
}
bool relation(Op op, const Decimal& a, const Decimal& b) {
  int c = decimal_compare(a, b);
  switch (op) {
    case OP_LT: return c < 0;
    case OP_GT: return c > 0;
    case OP_LE: return c <= 0;
    case OP_GE: return c >= 0;
    case OP_EQ: return c == 0;
    default: return c != 0;
  }
}

uint32_t integer_operation(Op op, uint32_t a, uint32_t b) {
  switch (op) {
    case OP_SHL: return b >= 32 ? 0 : a << b;
    case OP_SHR: return b >= 32 ? 0 : a >> b;
    case OP_BITAND: return a & b;
    case OP_BITXOR: return a ^ b;
    case OP_BITOR: return a | b;
    case OP_AND: return a != 0 && b != 0;
    case OP_XOR: return (a != 0) != (b != 0);
    default: return a != 0 || b != 0;
  }
}

template <typename Num>
void operate(Op op, std::string_view a, std::string_view b, std::string& result) {
  if (bit(op) & kIntegerOps) {
    append_u32(result, integer_operation(op, read_u32(a), read_u32(b)));
    return;
  }
  Num x, y;
  read_number(a, x);
  read_number(b, y);
  if (op >= OP_LT) {
    result += relation(op, x, y) ? '1' : '0';
    return;
  }
  Num r{};
  if (!arithmetic(op, x, y, r)) {
    eval_status = EVAL_DIVISION_BY_ZERO;
    result += '0';
    return;
  }
  append_number(result, r);
}

// Pass 1: each run of "!" and "~" with the number after it becomes the
// result, the operator nearest the number applied first.
void unary_pass(std::string_view in, std::string& out) {
  out.clear();
  size_t pos = 0;
  while (pos < in.size()) {
    Token tok = lex(in, pos);
    if (tok.number || (tok.op != OP_NOT && tok.op != OP_BITNOT)) {
      out.append(in, pos, tok.len);
      pos += tok.len;
      continue;
    }
    size_t first = pos;
    while (pos < in.size() && !tok.number && (tok.op == OP_NOT || tok.op == OP_BITNOT)) {
      pos += tok.len;
      if (pos < in.size()) tok = lex(in, pos);
    }
    if (pos >= in.size() || !tok.number) {
      // No operand: the operators stand for 0.
      eval_status = EVAL_ILLEGAL_OPERATOR;
      out += '0';
      continue;
    }
    uint32_t v = read_u32(in.substr(pos, tok.len));
    for (size_t i = pos; i-- > first;) v = in[i] == '!' ? uint32_t(v == 0) : ~v;
    append_u32(out, v);
    pos += tok.len;
  }
}

// One binary level: every operator in `ops` with the numbers beside it
// becomes the result, left to right, so a result is the next left operand.
template <typename Num>
void binary_pass(std::string_view in, std::string& out, uint32_t ops) {
  out.clear();
  constexpr size_t kNone = std::string::npos;
  size_t left = kNone;  // where the number just written to `out` starts
  std::string& result = scratch().result;
  size_t pos = 0;
  while (pos < in.size()) {
    Token tok = lex(in, pos);
    if (tok.number) {
      left = out.size();
      out.append(in, pos, tok.len);
      pos += tok.len;
      continue;
    }
    if (!(bit(tok.op) & ops)) {
      out.append(in, pos, tok.len);
      pos += tok.len;
      left = kNone;
      continue;
    }
    size_t rpos = pos + tok.len;
    Token right;
    if (rpos < in.size()) right = lex(in, rpos);
    pos = right.number ? rpos + right.len : rpos;
    if (left == kNone || !right.number) {
      // A missing operand: the operator and the operand it has are
      // replaced by 0, so the rest of the text still computes.
      eval_status = EVAL_ILLEGAL_OPERATOR;
      if (left != kNone) out.resize(left);
      left = out.size();
      out += '0';
      continue;
    }
    result.clear();
    operate<Num>(tok.op, std::string_view(out).substr(left), in.substr(rpos, right.len), result);
    out.resize(left);
    out += result;
  }
}

template <typename Num>
Num read_leading_number(std::string_view t) {
  Num n{};
  if (!t.empty()) {
    Token tok = lex(t, 0);
    if (tok.number) read_number(t.substr(0, tok.len), n);
  }
  return n;
}

// Text without parentheses and without "?": the passes, then the number.
template <typename Num>
Num run_passes(std::string_view text) {
  bool present[256] = {};
  for (char c : text) present[uint8_t(c)] = true;
  auto any = [&](std::string_view chars) {
    for (char c : chars)
      if (present[uint8_t(c)]) return true;
    return false;
  };
  Scratch& s = scratch();
  std::string_view cur = text;
  bool into_a = true;
  auto target = [&]() -> std::string& { return into_a ? s.pass_a : s.pass_b; };
  if (any("!~")) {
    unary_pass(cur, target());
    cur = target(), into_a = !into_a;
  }
  // A level whose characters never occur has nothing to do; results only
  // add digits, "." and signs, which no level but "+ -" looks at, and a
  // new sign always follows an operator, where it is a sign again.
  static constexpr std::string_view kLevelChars[] = {"*/%", "+-", "<>", "<>", "=!", "&", "^", "|",
                                                     "&", "^", "|"};
  for (size_t level = 0; level < std::size(kLevels); level++) {
    if (!any(kLevelChars[level])) continue;
    binary_pass<Num>(cur, target(), kLevels[level]);
    cur = target(), into_a = !into_a;
  }
  return read_leading_number<Num>(cur);
}

// Matches every "?" with its ":" like brackets: a ":" closes the nearest
// open "?", which is the rule of taking a nested conditional whole.
void match_colons(std::string_view text) {
  Scratch& s = scratch();
  s.colon_of.assign(text.size(), kNoColon);
  s.open.clear();
  for (size_t i = 0; i < text.size(); i++) {
    if (text[i] == '?') {
      s.open.push_back(uint32_t(i));
    } else if (text[i] == ':' && !s.open.empty()) {
      s.colon_of[s.open.back()] = uint32_t(i);
      s.open.pop_back();
    }
  }
}

// Text without parentheses.  Each conditional selects a part, which then
// stands for the whole text; a loop rather than recursion, so long chains
// of conditionals cost no stack.
template <typename Num>
Num evaluate_flat(std::string_view text) {
  size_t q = text.find('?');
  if (q == std::string_view::npos) return run_passes<Num>(text);
  match_colons(text);
  const std::vector<uint32_t>& colon_of = scratch().colon_of;
  size_t begin = 0, end = text.size();
  while (q != std::string_view::npos && q < end) {
    Num condition = run_passes<Num>(text.substr(begin, q - begin));
    size_t colon = colon_of[q];
    if (colon == kNoColon || colon >= end) {
      // Without its ":" the then-part runs to the end and the else-part
      // is empty, which reads as 0.
      eval_status = EVAL_MISSING_COLON;
      colon = end;
    }
    if (!is_zero(condition))
      begin = q + 1, end = colon;
    else
      begin = colon < end ? colon + 1 : end;
    q = text.find('?', begin);
  }
  return run_passes<Num>(text.substr(begin, end - begin));
}

bool is_plain_number(std::string_view t) {
  if (t.empty()) return false;
  size_t sign = (t[0] == '+' || t[0] == '-') ? 1 : 0;
  size_t digits = unsigned_number_length(t, sign);
  return digits > 0 && digits + sign == t.size();  // a sign alone is an operator
}

// A result that "%.15lf" prints as its integer is read back unchanged.
bool survives_print(double d) { return d == std::trunc(d) && std::fabs(d) < 1e15 && !(d == 0 && std::signbit(d)); }

// "number operator number" with one binary operator, the commonest shape in
// loops and conditions.  The passes would rewrite it into the operation's
// printed result and read that back, which is what this does without
// building each pass's text.  False for any other shape.
template <typename Num>
bool evaluate_single(std::string_view t, Num& out) {
  Token left = lex(t, 0);
  if (!left.number || left.len >= t.size()) return false;
  Token op = lex(t, left.len);
  if (op.number || op.op == OP_OTHER || op.op == OP_NOT || op.op == OP_BITNOT) return false;
  size_t rpos = left.len + op.len;
  if (rpos >= t.size()) return false;
  Token right = lex(t, rpos);
  if (!right.number || rpos + right.len != t.size()) return false;
  std::string_view a = t.substr(0, left.len), b = t.substr(rpos);
  if (!(bit(op.op) & kIntegerOps) && op.op >= OP_LT) {
    Num x, y;
    read_number(a, x);
    read_number(b, y);
    read_number(relation(op.op, x, y) ? "1" : "0", out);
    return true;
  }
  if constexpr (std::is_same_v<Num, double>) {
    if (!(bit(op.op) & kIntegerOps)) {
      double x, y, r = 0;
      read_number(a, x);
      read_number(b, y);
      if (!arithmetic(op.op, x, y, r)) {
        eval_status = EVAL_DIVISION_BY_ZERO;
        out = 0;
        return true;
      }
      if (survives_print(r)) {
        out = r;
        return true;
      }
    }
  }
  std::string& result = scratch().result;
  result.clear();
  operate<Num>(op.op, a, b, result);
  out = read_leading_number<Num>(result);
  return true;
}

// Text of numbers and binary operators only: the passes done on a list of
// tokens instead of on text.  A result stands where its left operand stood
// and, being one number ending in a digit, reads back as that one token, so
// every later pass sees the tokens the text passes would cut.  False, with
// the status as it was, for another shape, and the text passes run.
template <typename Num>
bool evaluate_tokens(std::string_view t, Num& out) {
  struct Item {
    bool number;
    Op op;
    std::string_view text;
  };
  static std::vector<Item> items, next;
  static std::vector<std::string> results;  // storage of computed numbers
  items.clear();
  for (size_t pos = 0; pos < t.size();) {
    Token tok = lex(t, pos);
    if (!tok.number && (tok.op == OP_OTHER || tok.op == OP_NOT || tok.op == OP_BITNOT)) return false;
    items.push_back(Item{tok.number, tok.op, t.substr(pos, tok.len)});
    pos += tok.len;
  }
  uint8_t status = eval_status;
  size_t used = 0;
  // One result per operator at most; sized first so that no result moves.
  if (results.size() < items.size()) results.resize(items.size());
  auto store = [&](std::string_view text) -> std::string_view {
    results[used] = text;
    return results[used++];
  };
  for (uint32_t ops : kLevels) {
    bool any = false;
    for (const Item& item : items)
      if (!item.number && (bit(item.op) & ops)) any = true;
    if (!any) continue;
    next.clear();
    constexpr size_t kNone = SIZE_MAX;
    size_t left = kNone;
    for (size_t i = 0; i < items.size(); i++) {
      const Item& item = items[i];
      if (item.number || !(bit(item.op) & ops)) {
        left = item.number ? next.size() : kNone;
        next.push_back(item);
        continue;
      }
      // A missing operand is replaced by 0 in the text, which may then read
      // differently (a "-" before it becomes a sign): the text passes
      // handle that.  So do they a result that is not one number.
      bool right = i + 1 < items.size() && items[i + 1].number;
      if (left == kNone || !right) {
        eval_status = status;
        return false;
      }
      std::string& result = scratch().result;
      result.clear();
      if constexpr (std::is_same_v<Num, double>) {
        // A whole result below 1e15 would print as "N.000000000000000";
        // "N" reads back the same, as a number and as an integer.
        double x, y, r;
        if (!(bit(item.op) & kIntegerOps) && item.op < OP_LT) {
          read_number(next[left].text, x);
          read_number(items[i + 1].text, y);
          if (arithmetic(item.op, x, y, r) && survives_print(r)) {
            char buf[24];
            result.append(buf, std::to_chars(buf, buf + sizeof buf, static_cast<int64_t>(r)).ptr);
          }
        }
      }
      if (result.empty()) operate<Num>(item.op, next[left].text, items[i + 1].text, result);
      Token whole = result.empty() ? Token{} : lex(result, 0);
      if (!whole.number || whole.len != result.size()) {
        eval_status = status;
        return false;
      }
      next[left].text = store(result);
      i++;
    }
    items.swap(next);
  }
  out = read_leading_number<Num>(items.empty() || !items[0].number ? std::string_view() : items[0].text);
  return true;
}

template <typename Num>
Num evaluate(std::string_view text) {
  Scratch& s = scratch();
  s.stripped.clear();
  for (char c : text)
    if (!is_space(c)) s.stripped += c;
  std::string_view t = s.stripped;
  if (arithmetic_shortcuts) {
    if (is_plain_number(t)) {
      Num n;
      read_number(t, n);
      return n;
    }
    Num single;
    if (evaluate_single<Num>(t, single)) return single;
    if (t.find_first_of("()?:") == std::string_view::npos && evaluate_tokens<Num>(t, single)) return single;
  }
  if (t.find_first_of("()") == std::string_view::npos) return evaluate_flat<Num>(t);

  // Parentheses: a stack of texts, one per open group; a closed group is
  // evaluated and its printed result joins the text around it.
  std::vector<std::string>& groups = s.groups;
  size_t depth = 0;
  if (groups.empty()) groups.emplace_back();
  groups[0].clear();
  auto close_group = [&]() {
    Num v = evaluate_flat<Num>(groups[depth]);
    depth--;
    append_number(groups[depth], v);
  };
  size_t pos = 0;
  while (pos < t.size()) {
    size_t next = t.find_first_of("()", pos);
    if (next == std::string_view::npos) next = t.size();
    groups[depth].append(t, pos, next - pos);
    if (next == t.size()) break;
    if (t[next] == '(') {
      depth++;
      if (groups.size() <= depth) groups.emplace_back();
      groups[depth].clear();
    } else if (depth == 0) {
      eval_status = EVAL_ILLEGAL_OPERATOR;  // a ")" closing nothing is dropped
    } else {
      close_group();
    }
    pos = next + 1;
  }
  if (depth > 0) eval_status = EVAL_UNMATCHED_PAREN;
  while (depth > 0) close_group();
  Num n = evaluate_flat<Num>(groups[0]);
  // Deeply nested text leaves many buffers behind; keep only a few.
  if (groups.size() > 64) groups.resize(64);
  return n;
}

// Bytes that may appear in arithmetic text besides digits and white space.
bool is_operator_byte(char c) {
  switch (c) {
    case '!': case '%': case '&': case '(': case ')': case '*': case '+': case '-':
    case '.': case '/': case ':': case '<': case '=': case '>': case '?': case '^':
    case '|': case '~':
      return true;
    default:
      return false;
  }
}

}  // namespace

bool expr_is_arithmetic(std::string_view text) {
  bool in_fraction = false;  // a "." has been seen in the current number
  for (char c : text) {
    if (c == '.') {
      if (in_fraction) return false;
      in_fraction = true;
    } else if (is_digit(c) || is_space(c) || c == '(' || c == ')' || c == '!' || c == '~') {
      // These do not end a number for the purpose of the decimal point.
    } else if (is_operator_byte(c)) {
      in_fraction = false;
    } else {
      return false;
    }
  }
  return true;
}

double expr_eval_double(std::string_view text, uint8_t* status) {
  eval_status = EVAL_OK;
  double d = evaluate<double>(text);
  *status = eval_status;
  return d;
}

Decimal expr_eval_decimal(std::string_view text, uint8_t* status) {
  eval_status = EVAL_OK;
  Decimal d = evaluate<Decimal>(text);
  *status = eval_status;
  return d;
}

// ---------------------------------------------------------------------------
// Compiled expressions
//
// The program is the expression in postfix order.  Every value on its stack
// is the number that the text evaluator would read back at that point: an
// arithmetic result or a reference rounded as "%.15lf" prints it, a constant
// as written.  Integer operators read their operands' leading integers; a
// constant keeps its own, which can differ from its rounded number's.

bool number_read_back_printed(double d, double* out) {
  if (!std::isfinite(d)) return false;
  // A number with at most 15 binary digits after the point (an integer, a
  // half, 0.125) prints exactly in 15 decimals and reads back as itself.
  double scaled = d * 32768.0;
  if (std::isfinite(scaled) && scaled == std::trunc(scaled)) {
    *out = d;
    return true;
  }
  char buf[400];
  auto res = std::to_chars(buf, buf + sizeof buf, d, std::chars_format::fixed, 15);
  if (res.ec != std::errc()) return false;
  std::string_view text(buf, static_cast<size_t>(res.ptr - buf));
  bool negative = !text.empty() && text[0] == '-';
  if (negative) text.remove_prefix(1);
  *out = parse_unsigned_decimal(text, negative);
  return true;
}

namespace {

enum ExprOp : uint8_t {
  X_CONST, X_REF, X_GROUP,            // push; X_GROUP rounds the top as a printed group
  X_NOT, X_BITNOT,                    // unary, on the top's leading integer
  X_BINARY,                           // arg: the Op of the binary operator
  X_JUMP_IF_ZERO, X_JUMP,             // ?: (pops the condition)
};

constexpr size_t kMaxProgramTokens = 4096;
constexpr int kMaxProgramNesting = 64;

struct ProgramToken {
  bool number = false;
  bool reference = false;
  Op op = OP_OTHER;
  char bracket = 0;  // '(', ')', '?' or ':' for those bytes
  std::string_view text;
  uint32_t index = 0;  // reference index
};

// Recursive descent over the tokens; every rule emits its postfix steps.
struct ProgramBuilder {
  const std::vector<ProgramToken>& tokens;
  ExprProgram& program;
  size_t pos = 0;
  uint32_t depth = 0, max_depth = 0;
  int nesting = 0;

  const ProgramToken* peek() const { return pos < tokens.size() ? &tokens[pos] : nullptr; }
  void push(ExprStep step, int stack_change) {
    program.steps.push_back(step);
    depth = uint32_t(int(depth) + stack_change);
    max_depth = std::max(max_depth, depth);
  }

  bool primary() {
    const ProgramToken* t = peek();
    if (!t) return false;
    if (t->number) {
      ExprStep step;
      if (t->reference) {
        step.op = X_REF;
        step.arg = t->index;
      } else {
        step.op = X_CONST;
        read_number(t->text, step.number);
        step.integer = read_u32(t->text);
      }
      push(step, 1);
      pos++;
      return true;
    }
    if (t->bracket != '(') return false;
    pos++;
    if (++nesting > kMaxProgramNesting || !ternary()) return false;
    nesting--;
    t = peek();
    if (!t || t->bracket != ')') return false;
    pos++;
    push(ExprStep{X_GROUP}, 0);
    return true;
  }

  bool unary() {
    std::vector<uint8_t> ops;
    for (const ProgramToken* t = peek(); t && !t->number && (t->op == OP_NOT || t->op == OP_BITNOT);
         t = peek()) {
      ops.push_back(t->op == OP_NOT ? X_NOT : X_BITNOT);
      pos++;
    }
    if (!primary()) return false;
    // The operator nearest the number applies first.
    for (size_t i = ops.size(); i-- > 0;) push(ExprStep{ops[i]}, 0);
    return true;
  }

  // The binary levels, loosest first: kLevels runs tightest to loosest.
  bool level(int index) {
    if (index < 0) return unary();
    uint32_t ops = kLevels[index];
    if (!level(index - 1)) return false;
    for (const ProgramToken* t = peek(); t && !t->number && t->bracket == 0 && (bit(t->op) & ops);
         t = peek()) {
      Op op = t->op;
      pos++;
      if (!level(index - 1)) return false;
      ExprStep step{X_BINARY};
      step.arg = op;
      push(step, -1);
    }
    return true;
  }

  // condition ? then : else, the condition holding no "?".
  bool ternary() {
    if (!level(int(std::size(kLevels)) - 1)) return false;
    const ProgramToken* t = peek();
    if (!t || t->bracket != '?') return true;
    pos++;
    if (++nesting > kMaxProgramNesting) return false;
    size_t jump_else = program.steps.size();
    push(ExprStep{X_JUMP_IF_ZERO}, -1);
    if (!ternary()) return false;
    t = peek();
    if (!t || t->bracket != ':') return false;
    pos++;
    size_t jump_end = program.steps.size();
    push(ExprStep{X_JUMP}, -1);  // the then-value stays; the else-value replaces it
    program.steps[jump_else].arg = uint32_t(program.steps.size());
    if (!ternary()) return false;
    program.steps[jump_end].arg = uint32_t(program.steps.size());
    nesting--;
    return true;
  }
};

// The leading integer that a printed number reads as, modulo 2^32.
uint32_t integer_of(double read) {
  double t = std::trunc(read);
  int64_t s;
  if (t >= 9223372036854775807.0)
    s = INT64_MAX;
  else if (t <= -9223372036854775808.0)
    s = INT64_MIN;
  else
    s = int64_t(t);
  return uint32_t(uint64_t(s));
}

}  // namespace

std::unique_ptr<ExprProgram> expr_compile(const std::vector<ExprPiece>& pieces) {
  // The text with each reference standing as "1.0", and with "-1.0": both
  // must be arithmetic, so whatever a reference prints the text is.
  std::string plus, minus;
  for (const ExprPiece& piece : pieces) {
    plus += piece.reference ? std::string_view("1.0") : piece.text;
    minus += piece.reference ? std::string_view("-1.0") : piece.text;
  }
  if (!expr_is_arithmetic(plus) || !expr_is_arithmetic(minus)) return nullptr;

  // White space removed; each reference's place noted.
  std::string text;
  std::vector<size_t> ref_at;
  for (const ExprPiece& piece : pieces) {
    if (piece.reference) {
      ref_at.push_back(text.size());
      text += "1.0";
      continue;
    }
    for (char c : piece.text)
      if (!is_space(c)) text += c;
  }
  if (text.empty()) return nullptr;
  // The text evaluator works out every parenthesised group, the branch of a
  // ?: it does not take included, which a program would skip.
  if (text.find('?') != std::string::npos && text.find('(') != std::string::npos) return nullptr;

  std::vector<ProgramToken> tokens;
  size_t next_ref = 0;
  for (size_t pos = 0; pos < text.size();) {
    if (tokens.size() >= kMaxProgramTokens) return nullptr;
    ProgramToken tok;
    bool at_ref = next_ref < ref_at.size() && ref_at[next_ref] == pos;
    Token lexed = lex(text, pos);
    // A reference's number stands alone: no sign or digit joins it, and
    // nothing before it takes it for a sign's operand.
    if (next_ref < ref_at.size() && ref_at[next_ref] > pos && pos + lexed.len > ref_at[next_ref])
      return nullptr;
    if (at_ref) {
      if (!lexed.number || lexed.len != 3) return nullptr;
      if (pos > 0) {
        char before = text[pos - 1];
        if (is_digit(before) || before == '.' || before == ')') return nullptr;
      }
      tok.number = tok.reference = true;
      tok.index = uint32_t(next_ref++);
    } else if (lexed.number) {
      tok.number = true;
      if (pos > 0 && text[pos - 1] == ')') return nullptr;
    } else {
      char c = text[pos];
      if (c == '(' || c == ')' || c == '?' || c == ':') {
        tok.bracket = c;
      } else if (lexed.op == OP_OTHER) {
        return nullptr;
      }
      tok.op = lexed.op;
    }
    tok.text = std::string_view(text).substr(pos, lexed.len);
    tokens.push_back(tok);
    pos += lexed.len;
  }
  if (next_ref != ref_at.size()) return nullptr;

  auto program = std::make_unique<ExprProgram>();
  program->references = uint32_t(ref_at.size());
  ProgramBuilder builder{tokens, *program};
  if (!builder.ternary() || builder.pos != tokens.size()) return nullptr;
  program->stack_depth = builder.max_depth + 1;
  return program;
}

bool expr_run(const ExprProgram& program, const double* references, double* result) {
  struct Slot {
    double number;
    uint32_t integer;
    bool exact;  // `integer` is the operand's own leading integer
  };
  Slot stack_buf[64];
  std::unique_ptr<Slot[]> heap;
  Slot* stack = stack_buf;
  if (program.stack_depth > std::size(stack_buf)) {
    heap = std::make_unique<Slot[]>(program.stack_depth);
    stack = heap.get();
  }
  size_t top = 0;
  auto integer = [](const Slot& s) { return s.exact ? s.integer : integer_of(s.number); };
  const ExprStep* steps = program.steps.data();
  const size_t count = program.steps.size();
  for (size_t pc = 0; pc < count; pc++) {
    const ExprStep& step = steps[pc];
    switch (step.op) {
      case X_CONST:
        stack[top++] = Slot{step.number, step.integer, true};
        break;
      case X_REF: {
        double read;
        if (!number_read_back(references[step.arg], &read)) return false;
        stack[top++] = Slot{read, 0, false};
        break;
      }
      case X_GROUP: {
        Slot& s = stack[top - 1];
        if (!number_read_back(s.number, &s.number)) return false;
        s.exact = false;
        break;
      }
      case X_NOT:
      case X_BITNOT: {
        Slot& s = stack[top - 1];
        uint32_t v = integer(s);
        v = step.op == X_NOT ? uint32_t(v == 0) : ~v;
        s = Slot{double(v), v, true};
        break;
      }
      case X_BINARY: {
        Slot& a = stack[top - 2];
        const Slot& b = stack[top - 1];
        Op op = Op(step.arg);
        if (bit(op) & kIntegerOps) {
          uint32_t v = integer_operation(op, integer(a), integer(b));
          a = Slot{double(v), v, true};
        } else if (op >= OP_LT) {
          uint32_t v = relation(op, a.number, b.number) ? 1 : 0;
          a = Slot{double(v), v, true};
        } else {
          double r;
          if (!arithmetic(op, a.number, b.number, r)) return false;  // division by zero
          if (!number_read_back(r, &r)) return false;
          a = Slot{r, 0, false};
        }
        top--;
        break;
      }
      case X_JUMP_IF_ZERO:
        top--;
        if (stack[top].number == 0) pc = step.arg - 1;
        break;
      case X_JUMP:
        pc = step.arg - 1;
        break;
    }
  }
  if (top != 1) return false;
  *result = stack[0].number;
  return true;
}

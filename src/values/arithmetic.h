// Arithmetic over option text: the two evaluators (floating point, and
// decimal numbers in decimal mode) and the compiled form of an expression.
//
// Arithmetic text is reduced by rewriting: parenthesised parts first, then a
// top-level ?:, then one pass per precedence level, each replacing operators
// and their operands by the printed result, which the next step reads back.
// A compiled expression computes the same numbers without the text: it
// rounds wherever the text evaluator prints and reads back.
#pragma once

#include <cstdint>
#include <memory>
#include <string_view>
#include <vector>

#include "values/decimal.h"

enum EvalStatus : uint8_t {
  EVAL_OK = 0,
  EVAL_DIVISION_BY_ZERO = 1,
  EVAL_ILLEGAL_OPERATOR = 2,
  EVAL_UNMATCHED_PAREN = 3,
  EVAL_MISSING_COLON = 4,
};

// The two evaluators over arithmetic text (white space already removed or
// not); `status` receives the evaluation's EvalStatus.
double expr_eval_double(std::string_view text, uint8_t* status);
Decimal expr_eval_decimal(std::string_view text, uint8_t* status);
// True when every byte may appear in arithmetic text and no number holds a
// second decimal point.
bool expr_is_arithmetic(std::string_view text);

// The text evaluators take exact shortcuts for common shapes (one operator,
// operators without parentheses); false makes them rewrite text only, the
// plain form that the engine's general path checks the shortcuts against.
extern bool arithmetic_shortcuts;

// A number as the evaluators read it back after printing it with "%.15lf".
// False for a number that does not print as digits (infinite, not a number).
bool number_read_back_printed(double d, double* out);
inline bool number_read_back(double d, double* out) {
  // Whole numbers print as their digits and read back unchanged.
  if (d < 1e15 && d > -1e15 && d == double(int64_t(d))) {
    *out = d;
    return true;
  }
  return number_read_back_printed(d, out);
}

// ---------------------------------------------------------------------------
// Compiled expressions

// One piece of an expression's text: literal text, or a reference whose
// number is known only when the expression runs (it stands for the number
// printed with "%.15lf").
struct ExprPiece {
  std::string_view text;
  bool reference = false;
};

struct ExprStep {
  uint8_t op = 0;
  uint32_t arg = 0;    // reference index or jump target
  double number = 0;   // a constant as read
  uint32_t integer = 0;  // a constant's leading integer, modulo 2^32
};

struct ExprProgram {
  std::vector<ExprStep> steps;  // postfix, with jumps for ?:
  uint32_t references = 0;
  uint32_t stack_depth = 0;
};

// Compiles text made of `pieces` when every text it can stand for is well
// formed arithmetic whose evaluation the program reproduces exactly; null
// otherwise (the text evaluator then runs on the text).
std::unique_ptr<ExprProgram> expr_compile(const std::vector<ExprPiece>& pieces);
// Runs a program over the numbers of its references.  False when the text
// evaluator must run instead: a division by zero (which it reports), or a
// number that does not print as digits.
bool expr_run(const ExprProgram& program, const double* references, double* result);

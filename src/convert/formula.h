// Evaluator of the text formulas of conversion rules of type 10.
#pragma once

#include <cstdint>
#include <span>

namespace korvel {

// Evaluates the formula text with the variable X bound to x. The text is upper-cased in
// place (it is the copy held in the conversion block's node); evaluation stops at the
// first zero byte or at the end of the span. Returns 0, 7 (syntax error / nesting too
// deep) or 8 (division by exactly 0, LOG/LN of exactly 0) and stores the result, which is
// 0.0 whenever the status is not 0.
int16_t evaluate_formula(std::span<char> text, double x, double* result);

// Resets the process-wide evaluator state (running MIN/MAX pair, random generator, last
// text and result). Called when the library is initialised.
void reset_formula_state();

// Why the last evaluation ended with status 7: "error: syntax" or "parser stack overflow";
// null after any other outcome.
const char* formula_failure_text();

}  // namespace korvel

// Evaluator of the text formulas of conversion rules of type 10.
//
// A formula text is compiled once into a straight-line program over registers: the parser
// decides the structure of the text (and whether it is a syntax error) without X, and
// records every computation the text asks for in the order the grammar reduces it. Running
// the program for an X gives the value, status and process-wide state (the random generator,
// the running MIN/MAX pair) that evaluating the text for that X gives, the same computations
// happening in the same order; a division by zero ends the run where the text's evaluation
// would end.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <vector>

namespace korvel {

// A compiled formula text. Running it uses the process-wide evaluator state (callers make
// one call at a time), so running is logically const.
class CompiledFormula {
 public:
  // Returns 0, 7 (syntax error / nesting too deep) or 8 (division by exactly 0, LOG/LN of
  // exactly 0) and stores the result, which is 0.0 whenever the status is not 0.
  int16_t run(double x, double* result) const;

  struct Op {
    uint8_t code = 0;
    uint32_t dst = 0;
    uint32_t a = 0;
    uint32_t b = 0;
    uint32_t c = 0;
    double (*fn)(double) = nullptr;
  };

 private:
  friend std::shared_ptr<const CompiledFormula> compile_formula(std::span<const char> text);

  std::vector<Op> ops_;
  // Register 0 is X; constants hold their value from the compilation on.
  mutable std::vector<double> registers_;
  uint32_t result_ = 0;
  int16_t end_status_ = 0;           // 0, or 7 where the text fails to parse
  const char* end_message_ = nullptr;
};

// Compiles a formula text (the text ends at its first zero byte or at the end of the span).
// The text itself is left as it is: the compilation works on an upper-cased copy.
std::shared_ptr<const CompiledFormula> compile_formula(std::span<const char> text);

// Normalises a formula text in place as evaluation reads it: upper-cased, the commas of a
// leading number turned into points; the text ends at its first zero byte or at the end of
// the span.
void normalise_formula_text(std::span<char> text);

// Evaluates the formula text with the variable X bound to x. The text is normalised in place
// as the compilation normalises its copy (upper-cased, the commas of a leading number turned
// into points); evaluation stops at the first zero byte or at the end of the span. Returns
// and stores as CompiledFormula::run does.
int16_t evaluate_formula(std::span<char> text, double x, double* result);

// Resets the process-wide evaluator state (running MIN/MAX pair, random generator, last
// result and failure). Called when the library is initialised.
void reset_formula_state();

// Why the last evaluation ended with status 7: "error: syntax" or "parser stack overflow";
// null after any other outcome.
const char* formula_failure_text();

}  // namespace korvel

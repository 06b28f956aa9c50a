// The consumer's handler of its service.
#ifndef CALCULATOR_HANDLER_H
#define CALCULATOR_HANDLER_H

#include <string>

#include "Calculator.h"

class CalculatorHandler : public calc::CalculatorIf {
public:
  int32_t divide(const int32_t dividend, const int32_t divisor) override {
    if (divisor == 0) {
      calc::DivideByZero oops;
      oops.message = "cannot divide by zero";
      throw oops;
    }
    return dividend / divisor;
  }
  void echo(std::string& result, const std::string& data) override { result = data; }
};

#endif

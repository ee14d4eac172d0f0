// The text of the exception that a call throws, for comparison.
#pragma once

#include <string>

// "nothing" when it throws none; an exception of another type passes.
template <class Exception, class Call>
std::string thrown(Call call) {
  try {
    call();
  } catch (const Exception& exception) {
    return exception.what();
  }
  return "nothing";
}

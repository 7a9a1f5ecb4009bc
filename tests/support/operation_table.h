#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "captured_run.h"
#include "indgen_memory.h"

// Tables in files that tell what operations give, an edge a cell:
//
//   sconcat   a,/b=/b  a/,b=a/b  (null),b=b
//   basename  x/=      a/b=b
//
// A line begins with the operation's name, or with blanks to go on with that of the line before. A
// cell holds the arguments, `=` and the result; a line that begins with # is a comment. `(null)` is
// a null pointer, a truth is 0 or 1, and %2C the byte of that code, as blanks, commas and signs of
// equality have to be written. A number may be told by a character: 'a. A folder that the table is
// about is written @.
//
//   > [INFO]
//   read_in   colors.ini,{}=!1
//   | kelvane: error: line 1: invalid heading 'BLUE'
//
// Lines that begin with > are a text, which {} stands for in the next operation's line. Lines that
// begin with | are what the operations of the line before say on standard error, |- for nothing; a
// backslash at the end stands for a line that isn't ended. Such an operation may end the run: that
// is a ! and the status behind its result.
namespace kelvane {

// A null pointer, which no text of a table can be.
inline constexpr const char* kNullText = "(null)";

inline std::string text_of(const char* string) {
  return string == nullptr ? kNullText : string;
}

// Takes over a string that an operation gives and shows it.
inline std::string taken(char* owned) {
  const gen_ptr<char> string(owned);
  return text_of(owned);
}

inline std::string unescaped(std::string_view text) {
  std::string result;
  for (size_t place = 0; place < text.size(); ++place) {
    if (text[place] == '%') {
      result += static_cast<char>(std::stoi(std::string(text.substr(place + 1, 2)), nullptr, 16));
      place += 2;
    } else {
      result += text[place];
    }
  }
  return result;
}

// An argument from the text of a cell. A char* is an owned copy. What is no string and no number is
// read by `from_text`, which stands beside the type.
template <typename Argument>
Argument argument_from(const std::string& text) {
  if constexpr (std::is_same_v<Argument, const char*>) {
    return text == kNullText ? nullptr : text.c_str();
  } else if constexpr (std::is_same_v<Argument, char*>) {
    return text == kNullText ? nullptr : ::strdup(text.c_str());
  } else if constexpr (std::is_same_v<Argument, const std::string&>) {
    return text;
  } else if constexpr (std::is_same_v<Argument, char>) {
    return text.empty() ? '\0' : text[0];
  } else if constexpr (std::is_integral_v<Argument>) {
    if (text[0] == '\'') {
      return static_cast<Argument>(text[1]);
    }
    return text[0] == '-' ? static_cast<Argument>(std::stoll(text))
                          : static_cast<Argument>(std::stoull(text, nullptr, 0));
  } else {
    Argument argument;
    from_text(text, &argument);
    return argument;
  }
}

// A result as the text of a cell, by `to_text` if it is no string and no number; a char* is
// released.
template <typename Result>
std::string result_text(Result result) {
  if constexpr (std::is_same_v<Result, char*>) {
    return taken(result);
  } else if constexpr (std::is_same_v<Result, const char*>) {
    return text_of(result);
  } else if constexpr (std::is_same_v<Result, std::string>) {
    return result;
  } else if constexpr (std::is_integral_v<Result>) {
    return std::to_string(result);
  } else {
    return to_text(result);
  }
}

// An operation under the name that a table calls it by.
class Operation {
 public:
  template <typename Callable>
  Operation(std::string name, Callable callable)
      : Operation(std::move(name), std::function(std::move(callable))) {}

  const std::string& name() const { return name_; }
  std::string operator()(const std::vector<std::string>& arguments) const {
    return call_(arguments);
  }

 private:
  template <typename Result, typename... Arguments>
  Operation(std::string name, std::function<Result(Arguments...)> operation)
      : name_(std::move(name)), call_([operation](const std::vector<std::string>& texts) {
          return texts.size() == sizeof...(Arguments)
                     ? called(operation, texts, std::index_sequence_for<Arguments...>())
                     : std::to_string(texts.size()) + " arguments";
        }) {}

  template <typename Result, typename... Arguments, size_t... Index>
  static std::string called(const std::function<Result(Arguments...)>& operation,
                            const std::vector<std::string>& texts,
                            std::index_sequence<Index...> /*all*/) {
    return result_text<Result>(operation(argument_from<Arguments>(texts[Index])...));
  }

  std::string name_;
  std::function<std::string(const std::vector<std::string>&)> call_;
};

// Cuts the arguments of a cell apart.
inline std::vector<std::string> arguments_of(std::string_view text) {
  std::vector<std::string> arguments;
  for (size_t end = 0; end != std::string_view::npos; text.remove_prefix(end + 1)) {
    end = text.find(',');
    arguments.push_back(unescaped(text.substr(0, end)));
    if (end == std::string_view::npos) {
      break;
    }
  }
  return arguments;
}

// Calls an operation and gives what a cell shows of that.
using Caller = std::function<std::string(const Operation&, const std::vector<std::string>&)>;
inline std::string call_once(const Operation& operation,
                             const std::vector<std::string>& arguments) {
  return operation(arguments);
}

inline std::string replaced(std::string text, const std::string& from, const std::string& to) {
  for (size_t place = 0; (place = text.find(from, place)) != std::string::npos;) {
    text.replace(place, from.size(), to);
    place += to.size();
  }
  return text;
}

// Takes the lines that begin with `mark` from a file, as a text.
inline std::string marked_lines(std::ifstream& lines, int mark) {
  std::string text;
  for (std::string line; lines.peek() == mark && std::getline(lines, line);) {
    const bool open = line.back() == '\\';
    text += unescaped(line.substr(std::min(line.size(), size_t{2}), line.size() - (open ? 3 : 2)));
    text += open || line == "|-" ? "" : "\n";
  }
  return text;
}

// Compares what the operations give, and what they say, with what the table in a file tells.
inline void check_table(const std::vector<Operation>& operations, const char* file,
                        const Caller& call = call_once, const std::string& folder = "") {
  std::ifstream lines(file);
  const auto shown = [&](const std::string& text) {
    return folder.empty() ? text : replaced(text, folder, "@");
  };
  std::string line;
  std::string block;
  const Operation* operation = nullptr;
  int cells = 0;
  while (block += marked_lines(lines, '>'), std::getline(lines, line)) {
    if (line.substr(0, 1) == "#") {
      continue;
    }
    std::istringstream words(line);
    std::string word;
    if (!line.empty() && line[0] != ' ' && words >> word) {
      operation = nullptr;
      for (const Operation& known : operations) {
        operation = known.name() == word ? &known : operation;
      }
      ASSERT_NE(operation, nullptr) << word << " in " << file;
    }
    const bool speaks = lines.peek() == '|';
    const std::string expected = marked_lines(lines, '|');
    std::string said;
    for (; words >> word; ++cells) {
      const size_t sign = word.rfind('=');
      ASSERT_TRUE(operation != nullptr && sign != std::string::npos) << word;
      std::vector<std::string> arguments = arguments_of(std::string_view(word).substr(0, sign));
      for (std::string& argument : arguments) {
        argument = argument == "{}" ? block
                   : folder.empty() ? argument
                                    : replaced(argument, "@", folder);
      }
      std::string given;
      if (speaks) {
        const CapturedRun run = capture([&] { given = call(*operation, arguments); });
        given += run.ended ? "!" + std::to_string(run.status) : "";
        said += run.errors;
      } else {
        given = call(*operation, arguments);
      }
      EXPECT_EQ(shown(given), unescaped(word.substr(sign + 1))) << operation->name() << ' ' << word;
    }
    EXPECT_EQ(shown(said), expected) << line;
    block.clear();
  }
  EXPECT_GT(cells, 0) << file;
}

}  // namespace kelvane

// An operation under its own name.
#define KELVANE_OPERATION(function) ::kelvane::Operation(#function, function)

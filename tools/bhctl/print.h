// Output for people and for programs.

#ifndef BH_TOOLS_BHCTL_PRINT_H_
#define BH_TOOLS_BHCTL_PRINT_H_

#include <functional>
#include <mutex>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

namespace bhctl {

using Json = nlohmann::ordered_json;  // keys keep the order of the reply's fields

// While one exists, what its thread prints is collected instead: appliances that are handled at
// once must not mix their lines.
struct Capture {
  std::string output;
  std::string errors;

  Capture();
  ~Capture();
  Capture(const Capture &) = delete;
  Capture &operator=(const Capture &) = delete;
};

// Prints "bhctl: " and the message on standard error.
void PrintError(const std::string &message);

void PrintLine(const std::string &line);

// Prints the text as it is.
void PrintText(const std::string &text);

// The columns that the text takes on a terminal: wide characters take two.
size_t TextWidth(const std::string &text);

// Something that is drawn on the terminal and must make room for what is printed. `clear` runs
// before each print; null: nothing is drawn.
void SetDrawing(const std::function<void()> &clear);

// Held while something is printed or drawn.
std::recursive_mutex &OutputMutex();

// Aligns the columns. Rows may have fewer columns. The texts must be safe for a terminal.
std::vector<std::string> TableLines(const std::vector<std::vector<std::string>> &rows);
void PrintTable(const std::vector<std::vector<std::string>> &rows);

// Prints one line of ASCII. Bytes that are not UTF-8 become U+FFFD.
void PrintJson(const Json &object);

// Whether to print colours: as --color says, else on a terminal unless NO_COLOR is set or TERM is
// "dumb".
enum class Color { AUTO, ALWAYS, NEVER };
void ChooseColor(Color color);

enum class Tone { PLAIN, GOOD, WARNING, BAD, FAINT };
// The text in the tone's colour; unchanged without colours.
std::string Toned(const std::string &text, Tone tone);

}  // namespace bhctl

#endif  // BH_TOOLS_BHCTL_PRINT_H_

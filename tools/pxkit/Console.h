// The pxkit tool's console output: section headings, aligned tables, labelled
// lines and the one failure line.
//
//   Console::heading("First launch");                 // "== First launch =="
//   Console::Table table({{"Identifier"}, {"Value", Console::Align::Right}});
//   table.addRow({"demo.documents.opened", "12"});
//   table.print();
//   Console::field("home", "/tmp/pxkit-demo-Xq3kfa"); // "  home      /tmp/..."
//   if (!Console::check(ok, "the saved state is on disk")) return 1;
//
// Everything goes to standard output except the failure line, which goes to
// standard error after standard output has been flushed, so the two stay in
// order on a terminal or a shared pipe. Not thread-safe: the tool prints from
// its main thread only.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace Console {

enum class Align { Left, Right };

// A blank line, then "== title ==".
void heading(std::string_view title);
// One line indented by two spaces (an empty text gives an empty line).
void line(std::string_view text = {});
// "  label  value" with the label padded to `labelWidth` characters.
void field(std::string_view label, std::string_view value, size_t labelWidth = 12);
// Writes `text` (several lines) with every line indented by two spaces.
void block(std::string_view text);

// Prints "FAILED: what" and returns false.
bool fail(std::string_view what);
// Returns `ok`; prints "FAILED: what" when it is false.
bool check(bool ok, std::string_view what);

// Flushes standard output (before another process writes to it).
void flush();

struct Column {
  std::string title;
  Align align = Align::Left;
};

// A table whose columns are as wide as their widest cell; printed with two
// spaces of indent and two between columns, a header and a rule under it.
class Table {
 public:
  explicit Table(std::vector<Column> columns);
  // A row with one cell per column (missing cells are empty, extra ones dropped).
  void addRow(std::vector<std::string> cells);
  void print() const;

 private:
  std::vector<Column> columns_;
  std::vector<std::vector<std::string>> rows_;
};

}  // namespace Console

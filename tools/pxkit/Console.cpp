#include "Console.h"

#include <algorithm>
#include <cstdio>

namespace Console {

namespace {

void write(std::string_view text) {
  if (!text.empty()) std::fwrite(text.data(), 1, text.size(), stdout);
}

// Display width of UTF-8 text: one column per code point (the tool prints no
// wide characters).
size_t width(std::string_view text) {
  return static_cast<size_t>(std::count_if(
      text.begin(), text.end(), [](char c) { return (static_cast<unsigned char>(c) & 0xC0) != 0x80; }));
}

void pad(size_t count) {
  for (size_t i = 0; i < count; ++i) std::fputc(' ', stdout);
}

}  // namespace

void heading(std::string_view title) {
  write("\n== ");
  write(title);
  write(" ==\n");
}

void line(std::string_view text) {
  if (!text.empty()) write("  ");
  write(text);
  write("\n");
}

void field(std::string_view label, std::string_view value, size_t labelWidth) {
  write("  ");
  write(label);
  pad(labelWidth > width(label) ? labelWidth - width(label) : 1);
  write(value);
  write("\n");
}

void block(std::string_view text) {
  while (!text.empty()) {
    size_t end = text.find('\n');
    line(text.substr(0, end));
    if (end == std::string_view::npos) break;
    text.remove_prefix(end + 1);
  }
}

bool fail(std::string_view what) {
  std::fflush(stdout);
  std::fprintf(stderr, "FAILED: %.*s\n", static_cast<int>(what.size()), what.data());
  std::fflush(stderr);
  return false;
}

bool check(bool ok, std::string_view what) {
  return ok ? true : fail(what);
}

void flush() {
  std::fflush(stdout);
}

Table::Table(std::vector<Column> columns) : columns_(std::move(columns)) {}

void Table::addRow(std::vector<std::string> cells) {
  cells.resize(columns_.size());
  rows_.push_back(std::move(cells));
}

void Table::print() const {
  std::vector<size_t> widths;
  for (const Column& column : columns_) widths.push_back(width(column.title));
  for (const auto& row : rows_) {
    for (size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], width(row[i]));
  }
  auto printRow = [&](const std::vector<std::string>& cells) {
    write("  ");
    for (size_t i = 0; i < cells.size(); ++i) {
      const bool last = i + 1 == cells.size();
      const size_t gap = widths[i] - width(cells[i]);
      if (columns_[i].align == Align::Right) pad(gap);
      write(cells[i]);
      if (columns_[i].align == Align::Left && !last) pad(gap);
      if (!last) write("  ");
    }
    write("\n");
  };
  std::vector<std::string> titles;
  std::vector<std::string> rules;
  for (size_t i = 0; i < columns_.size(); ++i) {
    titles.push_back(columns_[i].title);
    rules.emplace_back(widths[i], '-');
  }
  printRow(titles);
  printRow(rules);
  for (const auto& row : rows_) printRow(row);
}

}  // namespace Console

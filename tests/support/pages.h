// Files that are compared with what the code gives: pages of docs/ and golden reports. With the
// environment variable TQNLP_RENEW set, they are written instead.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "tqnlp/tqnlp.hpp"

namespace tqnlp::test {

// path is relative to the project.
inline std::filesystem::path in_project(const std::string& path) {
  return std::filesystem::path(__FILE__).parent_path() / "../.." / path;
}

inline std::string contents(const std::string& path) {
  std::ifstream file(in_project(path));
  return std::string(std::istreambuf_iterator<char>(file), {});
}

// A difference is shown by lines.
inline void expect_contents(const std::string& path, const std::string& text) {
  if (std::getenv("TQNLP_RENEW") != nullptr) std::ofstream(in_project(path)) << text;
  EXPECT_EQ(contents(path), text) << path << " is stale; TQNLP_RENEW=1 renews it";
}

// Does docs/reports.md have this table: a row with name and title, and its columns in this order?
// Labels of a table of labels and values stand in the text.
inline void expect_documented(const Table& table) {
  static const std::string page = contents("docs/reports.md");
  std::string unbroken = page;
  for (char& c : unbroken)
    if (c == '\n') c = ' ';
  bool found = false;
  for (std::size_t at = page.find("\n| `" + table.name + "` |"); at != std::string::npos && !found;
       at = page.find("\n| `" + table.name + "` |", at + 1)) {
    const std::string row = page.substr(at + 1, page.find('\n', at + 1) - at - 1);
    const bool titled = row.find("| " + table.title) != std::string::npos ||
                        row.find("; " + table.title) != std::string::npos;
    std::size_t place = titled ? 0 : std::string::npos;
    for (const std::string& column : table.columns) {
      const bool by_technique =
          table.name == "IterHist" && place != std::string::npos && row.find("`OptCrit`") <= place;
      if (by_technique) {
        EXPECT_NE(page.find("`" + column + "`"), std::string::npos) << column;
      } else if (place != std::string::npos) {
        place = row.find("`" + column + "`", place == 0 ? row.find(" | ") : place + 1);
      }
    }
    found = place != std::string::npos;
  }
  EXPECT_TRUE(found) << "docs/reports.md: " << text_table(table);
  if (table.columns.empty() || table.columns[0] != "Label") return;
  for (const auto& row : table.rows) {
    const std::string& label = std::get<std::string>(row[0]);
    EXPECT_NE(unbroken.find(label), std::string::npos) << label;
  }
}

}  // namespace tqnlp::test

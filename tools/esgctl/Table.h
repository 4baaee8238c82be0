#ifndef ESGCTL_TABLE_H
#define ESGCTL_TABLE_H

#include <string>
#include <utility>
#include <vector>

namespace esgctl {

/// How output may look.
struct Style {
  int width = 0;  ///< columns to fit into; 0: any
  bool colour = false;
};

/// `text` in bold where colours are wanted.
std::string Bold(const std::string& text, const Style& style);

/// Rows of text in aligned columns, two spaces apart. Only the last column is cut to fit.
class Table {
 public:
  explicit Table(std::vector<std::string> header);

  /// As many cells as the header has; any text. A marked row stands out in colour.
  void AddRow(const std::vector<std::string>& cells, bool marked = false);

  std::string Render(const Style& style) const;

 private:
  struct Row {
    std::vector<std::string> cells;
    bool marked;
  };

  std::vector<Row> m_rows;  // the header first
};

/// "label  value" lines; a long value goes on under itself.
std::string RenderFields(const std::vector<std::pair<std::string, std::string>>& fields,
                         const Style& style);

}  // namespace esgctl

#endif

// Plain tables with aligned columns.

#pragma once

#include <iosfwd>
#include <string>
#include <vector>

namespace HostAgent {

class TextTable {
 public:
   enum class Align { left, right };

   // Adds a column; all columns come before the first row.
   void columnAdd( std::string heading, Align align );

   // Adds a row with one cell for each column. Cells are printable ASCII, a byte a column wide.
   void rowAdd( std::vector<std::string> cells );

   // Writes the headings and the rows, each indented by two and with two blanks between columns,
   // without blanks at the end of a line.
   void render( std::ostream& out ) const;

 private:
   struct Column {
      Align align;
      std::size_t width;
   };

   std::vector<Column> columns_;
   // The headings are the first.
   std::vector<std::vector<std::string>> rows_ = { {} };
};

} // namespace HostAgent

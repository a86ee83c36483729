#pragma once

#include <string>
#include <vector>

namespace Ctl {

// Columns as wide as their widest cell, two spaces apart. A cell may hold several
// lines (a device's addresses); the row is then as tall as its tallest cell.
class Table {
 public:
   using Cell = std::vector<std::string>;

   // All-empty headers make a table without a header line (name/value lists).
   explicit Table(std::vector<std::string> headers);

   // Counts read better lined up on their last digit.
   void rightAlignedIs(size_t column);
   void rowAdd(const std::vector<std::string>& cells);
   void multiLineRowAdd(std::vector<Cell> cells);
   bool empty() const { return rows_.empty(); }

   std::string text(size_t indent = 0) const;

 private:
   std::vector<std::string> headers_;
   std::vector<bool> right_;
   std::vector<std::vector<Cell>> rows_;
};

}  // namespace Ctl

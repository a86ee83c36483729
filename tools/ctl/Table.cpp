#include "tools/ctl/Table.h"

#include <algorithm>

namespace Ctl {

Table::Table(std::vector<std::string> headers)
    : headers_(std::move(headers)), right_(headers_.size(), false) {}

void Table::rightAlignedIs(size_t column) {
   right_.at(column) = true;
}

void Table::multiLineRowAdd(std::vector<Cell> cells) {
   cells.resize(headers_.size());
   rows_.push_back(std::move(cells));
}

void Table::rowAdd(const std::vector<std::string>& cells) {
   std::vector<Cell> row;
   for (const auto& c : cells)
      row.push_back({c});
   multiLineRowAdd(std::move(row));
}

std::string Table::text(size_t indent) const {
   std::vector<size_t> width;
   for (const auto& h : headers_)
      width.push_back(h.size());
   for (const auto& row : rows_)
      for (size_t c = 0; c < row.size(); ++c)
         for (const auto& line : row[c])
            width[c] = std::max(width[c], line.size());

   static const std::string none;
   std::string out;
   auto emit = [&](const std::vector<const std::string*>& cells) {
      std::string line(indent, ' ');
      for (size_t c = 0; c < cells.size(); ++c) {
         const std::string& text = cells[c] ? *cells[c] : none;
         std::string pad(width[c] - text.size(), ' ');
         if (c)
            line += "  ";
         line += right_[c] ? pad + text : text + pad;
      }
      line.erase(line.find_last_not_of(' ') + 1);
      out += line + '\n';
   };
   std::vector<const std::string*> cells;
   for (const auto& h : headers_)
      cells.push_back(&h);
   if (std::any_of(headers_.begin(), headers_.end(), [](const auto& h) { return !h.empty(); }))
      emit(cells);
   for (const auto& row : rows_) {
      size_t height = 1;
      for (const auto& cell : row)
         height = std::max(height, cell.size());
      for (size_t l = 0; l < height; ++l) {
         for (size_t c = 0; c < row.size(); ++c)
            cells[c] = l < row[c].size() ? &row[c][l] : nullptr;
         emit(cells);
      }
   }
   return out;
}

}  // namespace Ctl

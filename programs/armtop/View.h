#pragma once

#include <string>
#include <vector>

#include "armtop/Figures.h"

namespace armtop {

/// The columns in their order.
enum class Column { application, transaction, count, rate, errors, p50, p95, p99, in_flight };

inline constexpr int COLUMNS = 9;

/// The name by which --sort and the heading know a column.
const char* nameOf(Column column);
/// The column of a name; false when there is none.
bool columnNamed(const std::string& name, Column* column);

/// In which order rows are shown.
struct Order {
  Column column = Column::rate;
  bool reversed = false;
};

/// Names in alphabetical order, figures from the largest on; rows that have none come last.
void sortRows(std::vector<Row>* rows, const Order& order);

/// Rows whose application or transaction contains a text.
std::vector<Row> filterRows(const std::vector<Row>& rows, const std::string& text);

/// The cells of the heading, with the column of the order marked.
std::vector<std::string> headingCells(const Order* order);
/// The cells of a row.
///   name_columns  room for each of the two names
std::vector<std::string> cells(const Row& row, std::size_t name_columns);

/// The table as lines: the heading, then one for each row.
std::vector<std::string> tableLines(const std::vector<Row>& rows, const Order* order,
                                    std::size_t name_columns);

/// The state of the engine in one line.
std::string engineLine(const Figures& figures);

/// What to do when no class is known yet.
std::vector<std::string> emptyLines();

/// A time in a unit in which it has three significant figures; ">10.0 s" when it is longer.
std::string readableTime(const std::optional<Quantile>& time);
/// A number with two or three significant figures; "-" when there is none.
std::string readableNumber(const std::optional<double>& number);

}  // namespace armtop

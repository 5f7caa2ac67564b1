#include "armtop/View.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <limits>

#include "text/Columns.h"

namespace armtop {

namespace {

constexpr std::array<const char*, COLUMNS> NAMES = {
    "application", "transaction", "count", "rate", "errors", "p50", "p95", "p99", "in-flight"};

std::string withUnit(double value, int decimals, const char* unit) {
  char text[64];
  (void)std::snprintf(text, sizeof text, "%.*f%s", decimals, value, unit);
  return text;
}

int decimalsFor(double value) {
  return value < 9.995 ? 2 : value < 99.95 ? 1 : 0;
}

double orLowest(const std::optional<double>& value) {
  return value.value_or(-std::numeric_limits<double>::infinity());
}

double orLowest(const std::optional<Quantile>& value) {
  return value ? value->seconds : -std::numeric_limits<double>::infinity();
}

double figureOf(const Row& row, Column column) {
  switch (column) {
    case Column::count:
      return row.count;
    case Column::rate:
      return orLowest(row.rate);
    case Column::errors:
      return orLowest(row.errors);
    case Column::p50:
      return orLowest(row.p50);
    case Column::p95:
      return orLowest(row.p95);
    case Column::p99:
      return orLowest(row.p99);
    case Column::in_flight:
      return row.in_flight;
    case Column::application:
    case Column::transaction:
      break;
  }
  return 0;
}

bool comesBefore(const Row& a, const Row& b, Column column) {
  if (column == Column::transaction && a.name.second != b.name.second) {
    return a.name.second < b.name.second;
  }
  const double figure_a = figureOf(a, column);
  const double figure_b = figureOf(b, column);
  if (figure_a != figure_b) return figure_a > figure_b;
  return a.name < b.name;
}

std::string percent(const std::optional<double>& share) {
  if (!share) return "-";
  const double value = *share * 100;
  if (value == 0) return "0 %";
  return withUnit(value, value < 9.95 ? 1 : 0, " %");
}

std::string whole(double value) {
  return withUnit(value, 0, "");
}

std::string ofCapacity(double value, const std::optional<double>& capacity) {
  return whole(value) + (capacity ? "/" + whole(*capacity) : "");
}

}  // namespace

const char* nameOf(Column column) {
  return NAMES[static_cast<std::size_t>(column)];
}

bool columnNamed(const std::string& name, Column* column) {
  const auto* found = std::find(NAMES.begin(), NAMES.end(), name);
  if (found == NAMES.end()) return false;
  *column = static_cast<Column>(found - NAMES.begin());
  return true;
}

void sortRows(std::vector<Row>* rows, const Order& order) {
  std::sort(rows->begin(), rows->end(), [&order](const Row& a, const Row& b) {
    return order.reversed ? comesBefore(b, a, order.column) : comesBefore(a, b, order.column);
  });
}

std::vector<Row> filterRows(const std::vector<Row>& rows, const std::string& text) {
  std::vector<Row> fitting;
  std::copy_if(rows.begin(), rows.end(), std::back_inserter(fitting), [&text](const Row& row) {
    return row.name.first.find(text) != std::string::npos ||
           row.name.second.find(text) != std::string::npos;
  });
  return fitting;
}

std::vector<std::string> headingCells(const Order* order) {
  std::vector<std::string> heading = {"application", "transaction", "count", "rate/s",   "errors",
                                      "p50",         "p95",         "p99",   "in flight"};
  if (order != nullptr) {
    heading[static_cast<std::size_t>(order->column)] += order->reversed ? " ^" : " v";
  }
  return heading;
}

std::vector<std::string> cells(const Row& row, std::size_t name_columns) {
  return {armtext::printable(row.name.first, name_columns),
          armtext::printable(row.name.second, name_columns),
          whole(row.count),
          readableNumber(row.rate),
          percent(row.errors),
          readableTime(row.p50),
          readableTime(row.p95),
          readableTime(row.p99),
          whole(row.in_flight)};
}

std::vector<std::string> tableLines(const std::vector<Row>& rows, const Order* order,
                                    std::size_t name_columns) {
  armtext::Table table("llrrrrrrr");
  table.add(headingCells(order));
  for (const Row& row : rows) table.add(cells(row, name_columns));
  const std::string text = table.text();
  std::vector<std::string> lines;
  for (std::size_t begin = 0; begin < text.size();) {
    const std::size_t end = text.find('\n', begin);
    lines.push_back(text.substr(begin, end - begin));
    begin = end + 1;
  }
  return lines;
}

std::string engineLine(const Figures& figures) {
  std::string line =
      "engine " + (figures.version.empty() ? "?" : armtext::printable(figures.version, 16));
  if (figures.requests) {
    line += "  requests " + ofCapacity(*figures.requests, figures.request_capacity);
  }
  if (figures.requesters) {
    line += "  requesters " + ofCapacity(*figures.requesters, figures.reply_capacity);
  }
  line += "  classes " + std::to_string(figures.classes.size());
  if (figures.dropped > 0) line += "  dropped " + whole(figures.dropped);
  return line;
}

std::vector<std::string> emptyLines() {
  return {"No transaction yet. Send the first one:",
          "  armrun --app NAME --transaction NAME -- COMMAND",
          "or start a program that calls arm_init, arm_getid, arm_start and arm_stop."};
}

std::string readableTime(const std::optional<Quantile>& time) {
  if (!time) return "-";
  const std::string mark = time->beyond ? ">" : "";
  const double seconds = time->seconds;
  if (seconds < 0.9995e-3) return mark + withUnit(seconds * 1e6, 0, " us");
  const bool milliseconds = seconds < 0.9995;
  const double value = milliseconds ? seconds * 1e3 : seconds;
  return mark + withUnit(value, decimalsFor(value), milliseconds ? " ms" : " s");
}

std::string readableNumber(const std::optional<double>& number) {
  if (!number) return "-";
  return *number == 0 ? "0" : withUnit(*number, decimalsFor(*number), "");
}

}  // namespace armtop

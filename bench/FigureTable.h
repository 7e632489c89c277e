#ifndef BENCH_FIGURETABLE_H
#define BENCH_FIGURETABLE_H

// A benchmark reporter that prints the usual console report and keeps, for every benchmark, the
// median and the other aggregates of its repetitions (time per iteration and counters), so that the figures and the ratios
// between benchmarks run side by side can be printed afterwards as one table with a column per
// file system.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <map>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

namespace bench_support {

class FigureTable : public benchmark::ConsoleReporter {
 public:
  struct Median {
    double seconds = 0;  // real time per iteration
    std::map<std::string, double> counters;
  };

  // One cell: its text and whether it meets the row's target (unknown when there is none).
  struct Cell {
    std::string text;
    // kUnmeasured: the benchmarks behind it did not run (left out by a filter) or failed.
    enum Verdict { kNone, kMet, kMissed, kUnmeasured } verdict = kNone;
  };

  // Computes a cell from the medians for one column.
  using CellMaker = std::function<Cell(const FigureTable&, const std::string& column)>;

  // `columns` are the labels substituted for "{fs}" in benchmark names (one per file system);
  // `headers` their titles in the table.
  FigureTable(std::vector<std::string> columns, std::vector<std::string> headers)
      : benchmark::ConsoleReporter(OO_Tabular),
        mColumns(std::move(columns)),
        mHeaders(std::move(headers)) {}

  void ReportRuns(const std::vector<Run>& runs) override {
    benchmark::ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs) {
      // A benchmark run once has no aggregates: its single run is its median.
      const bool single = run.run_type == Run::RT_Iteration && run.repetitions <= 1;
      if (run.error_occurred || (!single && run.run_type != Run::RT_Aggregate)) continue;
      Median figure;
      figure.seconds =
          run.GetAdjustedRealTime() / benchmark::GetTimeUnitMultiplier(run.time_unit);
      for (const auto& counter : run.counters) figure.counters[counter.first] = counter.second;
      auto& aggregates = mAggregates[run.run_name.function_name];
      if (single) {
        aggregates["median"] = figure;
        aggregates["max"] = figure;
      } else {
        aggregates[run.aggregate_name] = figure;
      }
    }
  }

  // An aggregate ("median", "max", ...) of the benchmark registered under `name` ("{fs}"
  // replaced by `column`), or null when it did not run or failed.
  const Median* Find(const std::string& name, const std::string& column,
                     const std::string& aggregate = "median") const {
    const auto found = mAggregates.find(Substitute(name, column));
    if (found == mAggregates.end()) return nullptr;
    const auto figure = found->second.find(aggregate);
    return figure == found->second.end() ? nullptr : &figure->second;
  }

  static std::string Substitute(const std::string& name, const std::string& column) {
    std::string result = name;
    const std::string key = "{fs}";
    const auto at = result.find(key);
    if (at != std::string::npos) result.replace(at, key.size(), column);
    return result;
  }

  void AddSection(const std::string& title) { mRows.push_back(Row{title, "", nullptr}); }
  void AddRow(const std::string& label, const std::string& target, CellMaker maker) {
    mRows.push_back(Row{label, target, std::move(maker)});
  }

  // Prints the table; returns how many cells missed their target.
  int Print(std::ostream& out) const {
    std::vector<std::vector<std::string>> lines;
    int missed = 0;
    int unmeasured = 0;
    std::vector<std::string> header{"Figure"};
    header.insert(header.end(), mHeaders.begin(), mHeaders.end());
    header.push_back("Target");
    lines.push_back(header);
    for (const Row& row : mRows) {
      std::vector<std::string> line{row.label};
      for (const std::string& column : mColumns) {
        if (!row.maker) {
          line.push_back("");
          continue;
        }
        const Cell cell = row.maker(*this, column);
        std::string text = cell.text;
        if (cell.verdict == Cell::kMet) text += "  ok";
        if (cell.verdict == Cell::kMissed) {
          text += "  MISSED";
          ++missed;
        }
        if (cell.verdict == Cell::kUnmeasured && !row.target.empty()) ++unmeasured;
        line.push_back(text);
      }
      line.push_back(row.target);
      lines.push_back(line);
    }

    std::vector<size_t> widths(header.size(), 0);
    for (const auto& line : lines)
      for (size_t i = 0; i < line.size(); ++i) widths[i] = std::max(widths[i], line[i].size());
    const auto rule = [&] {
      for (size_t i = 0; i < widths.size(); ++i) out << (i ? "-+-" : "") << std::string(widths[i], '-');
      out << '\n';
    };
    out << '\n';
    for (size_t n = 0; n < lines.size(); ++n) {
      const bool section = n > 0 && !mRows[n - 1].maker;
      if (n == 1 || section) rule();
      for (size_t i = 0; i < lines[n].size(); ++i) {
        out << (i ? " | " : "") << lines[n][i];
        if (i + 1 < lines[n].size()) out << std::string(widths[i] - lines[n][i].size(), ' ');
      }
      out << '\n';
    }
    rule();
    out << (missed ? std::to_string(missed) + " figure(s) missed their target" :
                     std::string("every figure measured met its target"));
    if (unmeasured) out << "; " << unmeasured << " not measured (filtered out or failed)";
    out << '\n';
    return missed;
  }

  // Text helpers for cells.
  static std::string Duration(double seconds) {
    char text[32];
    if (seconds < 1e-6)
      std::snprintf(text, sizeof text, "%.0f ns", seconds * 1e9);
    else if (seconds < 1e-3)
      std::snprintf(text, sizeof text, "%.1f us", seconds * 1e6);
    else
      std::snprintf(text, sizeof text, "%.2f ms", seconds * 1e3);
    return text;
  }
  static std::string Number(double value, const char* format = "%.2f") {
    char text[32];
    std::snprintf(text, sizeof text, format, value);
    return text;
  }

 private:
  struct Row {
    std::string label;
    std::string target;
    CellMaker maker;  // null for a section title
  };

  std::vector<std::string> mColumns;
  std::vector<std::string> mHeaders;
  std::map<std::string, std::map<std::string, Median>> mAggregates;
  std::vector<Row> mRows;
};

}  // namespace bench_support

#endif

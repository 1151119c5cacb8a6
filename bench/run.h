// What one run of the benchmark left behind, and how it is printed.
#pragma once
#include <fstream>
#include <nlohmann/json.hpp>
#include <set>
#include <string>
#include <vector>

using json = nlohmann::ordered_json;

extern json run;                             // of bench_main
extern json growth;                          // of bench_growth, empty when it was not run
extern std::vector<std::string> contestants; // of the run, in the order of the tables

// The row of a case, or null; one figure of it, or 0.
const json *row_of(const std::string &op, uint32_t size, const std::string &peer);
double time_of(const std::string &op, uint32_t size, const std::string &peer, const char *field = "real_time");
std::vector<double> rounds_of(const std::string &op, uint32_t size, const std::string &peer);
std::set<uint32_t> sizes_of(const std::vector<std::string> &ops);

std::string number(double ns); // "" for 0
std::string count(uint32_t n); // 1000 as 1k
void table(std::ofstream &out, const std::string &title, const std::vector<std::string> &heads,
           const std::vector<std::vector<std::string>> &rows);

// The parts of the report.
void goals(std::ofstream &out);
void growth_tables(std::ofstream &out);
void growth_columns(const std::string &path);

#include "run.h"

#include <stdio.h>

#include <algorithm>

json run, growth;
std::vector<std::string> contestants;

const json *row_of(const std::string &op, uint32_t size, const std::string &peer)
{
    for (const json &row : run["benchmarks"])
        if (row["op"] == op && row["size"] == size && row["peer"] == peer)
            return &row;
    return nullptr;
}

double time_of(const std::string &op, uint32_t size, const std::string &peer, const char *field)
{
    const json *row = row_of(op, size, peer);
    return row && row->contains(field) ? (*row)[field].get<double>() : 0;
}

std::string number(double ns)
{
    char text[32];
    if (ns == 0)
        return "";
    snprintf(text, sizeof text, ns < 100 ? "%.1f" : "%.0f", ns);
    return text;
}

std::vector<double> rounds_of(const std::string &op, uint32_t size, const std::string &peer)
{
    const json *row = row_of(op, size, peer);
    return row && row->contains("rounds") ? (*row)["rounds"].get<std::vector<double>>() : std::vector<double>();
}

std::set<uint32_t> sizes_of(const std::vector<std::string> &ops)
{
    std::set<uint32_t> sizes;
    for (const json &row : run["benchmarks"])
        if (std::find(ops.begin(), ops.end(), row["op"].get<std::string>()) != ops.end())
            sizes.insert(row["size"].get<uint32_t>());
    return sizes;
}

void table(std::ofstream &out, const std::string &title, const std::vector<std::string> &heads,
           const std::vector<std::vector<std::string>> &rows)
{
    out << "### " << title << "\n\n|";
    for (const std::string &head : heads)
        out << " " << head << " |";
    out << "\n|---|";
    for (size_t i = 1; i < heads.size(); i++)
        out << "---:|";
    out << "\n";
    for (const auto &row : rows) {
        out << "|";
        for (const std::string &cell : row)
            out << " " << cell << " |";
        out << "\n";
    }
    out << "\n";
}

std::string count(uint32_t n)
{
    return n % 1000000 == 0 ? std::to_string(n / 1000000) + "M"
           : n % 1000 == 0  ? std::to_string(n / 1000) + "k"
                            : std::to_string(n);
}

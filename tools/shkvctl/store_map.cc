// A store as a picture, drawn from its bytes: a walk of the table and of the allocator's lists.
#include "shkvctl/store_map.h"

#include <errno.h>
#include <math.h>

#include <algorithm>
#include <array>
#include <map>

#include "shkvctl/common.h"
#include "shkvctl/names.h"
#include "shkvctl/raw_stats.h"

namespace
{
enum State : uint8_t { OTHER, LIVE, FREE, HELD, FRESH, RESERVE, STATES };

struct Legend {
    const char *name, *words, *color;
};

constexpr Legend legends[STATES] = {
    {"neither", "staged, under way, or lost", "#c8412f"},
    {"live", "in records", "#2f74b5"},
    {"free", "handed out next", "#8fc98f"},
    {"held", "waits for readers to move on", "#efb13c"},
    {"never used", "the rest of the space", "#e4e8ee"},
    {"reserve", "makes up for what is held", "#c9bde6"},
};

// What the picture shows.
struct Map {
    std::vector<uint32_t> chains; // length by bucket
    std::vector<uint8_t> units;   // State by unit
    std::array<uint64_t, STATES> count = {};
    uint64_t records = 0, longest = 0;
    sbm space = {};
    bool vector = false;
};

constexpr uint64_t MAX_DRAWN = 64u << 20; // buckets or units: more are damage

size_t unit_of(const Map &map, uint32_t off)
{
    if (off < map.space.dn_base || (off - map.space.dn_base) % map.space.dn_sz != 0)
        return map.units.size();
    return (off - map.space.dn_base) / map.space.dn_sz;
}

void mark(Map &map, uint32_t off, State state)
{
    size_t unit = unit_of(map, off);
    if (unit < map.units.size())
        map.units[unit] = state;
}

// All units of a record of variable size: the first names the next, and so on.
void mark_record(Map &map, const RawStore &store, int ud, const RawRecord &rec)
{
    mark(map, rec.off, LIVE);
    uint32_t off = rec.head.unit_next;
    for (uint32_t unit = 1; map.vector && unit < rec.head.unit_cnt && off != 0; unit++) {
        mark(map, off, LIVE);
        if (!store.read(ud, off, &off))
            return;
    }
}

// A list of the allocator, which ends in 0; no longer than there are units.
void mark_list(Map &map, const RawStore &store, int ud, uint32_t off, State state)
{
    for (size_t left = map.units.size(); off != 0 && left > 0; left--) {
        mark(map, off, state);
        if (!store.read(ud, off, &off))
            return;
    }
}

Map look_at(RawStore &store)
{
    Map map;
    int md = store.active_md(), ud = store.active_ud();
    if (!md || !ud || !store.read(ud, 0, &map.space) || map.space.dn_sz < sizeof(udn) ||
        map.space.ud_end < map.space.dn_base)
        throw Failure(
            EXIT_ERROR, EINVAL,
            fmt::format("store '{}' has nothing to draw: no table or no record space", store.dbname()));
    uint64_t units = (map.space.ud_end - map.space.dn_base) / map.space.dn_sz, buckets = store.md(md).hashsz;
    if (units == 0 || buckets == 0 || units > MAX_DRAWN || buckets > MAX_DRAWN)
        throw Failure(EXIT_ERROR, EINVAL,
                      fmt::format("store '{}' has sizes that make no sense", store.dbname()));
    map.vector = store.mm_mode() == CONF_VECTORMM;
    map.chains.resize(buckets);
    map.units.resize(units, OTHER);
    uint64_t full = unit_of(map, (uint32_t)map.space.ud_full);
    for (uint64_t unit = unit_of(map, (uint32_t)map.space.dn_tail); unit < units; unit++)
        map.units[unit] = unit >= full ? RESERVE : FRESH;
    mark_list(map, store, ud, map.space.free_head, FREE);
    mark_list(map, store, ud, map.space.hold_head, HELD);
    WalkResult walk = walk_table(store, md, (uint32_t)buckets, link_of(md), ud, [&](const RawRecord &rec) {
        map.longest = std::max<uint64_t>(map.longest, ++map.chains[rec.bucket]);
        mark_record(map, store, ud, rec);
        return true;
    });
    map.records = walk.records;
    for (uint8_t state : map.units)
        map.count[state]++;
    return map;
}

// ---- Drawing ----

constexpr int WIDTH = 920, LEFT = 40, INNER = WIDTH - 2 * LEFT;

class Svg
{
  public:
    template <typename... Args> void add(fmt::format_string<Args...> text, Args &&...args)
    {
        body_ += fmt::format(text, std::forward<Args>(args)...) + "\n";
    }
    void text(double x, double y, const char *cls, const std::string &words)
    {
        add("<text x=\"{:.1f}\" y=\"{:.1f}\" class=\"{}\">{}</text>", x, y, cls, escaped(words));
    }
    void box(double x, double y, double w, double h, const std::string &color, double round = 0)
    {
        add("<rect x=\"{:.1f}\" y=\"{:.1f}\" width=\"{:.2f}\" height=\"{:.2f}\" fill=\"{}\" rx=\"{}\"/>", x, y,
            w, h, color, round);
    }
    // A small square of a grid. Those of one color make one path, which keeps the file small.
    void cell(double x, double y, double w, double h, const std::string &color)
    {
        cells_[color] += fmt::format("M{:.1f} {:.1f}h{:.1f}v{:.1f}h-{:.1f}z", x, y, w, h, w);
    }
    void end_grid()
    {
        for (const auto &[color, path] : cells_)
            add("<path fill=\"{}\" d=\"{}\"/>", color, path);
        cells_.clear();
    }
    std::string done(int height) const
    {
        return fmt::format("<svg xmlns=\"http://www.w3.org/2000/svg\" viewBox=\"0 0 {0} {1}\" width=\"{0}\" "
                           "height=\"{1}\">\n"
                           "<style>text{{font-family:system-ui,'DejaVu "
                           "Sans',sans-serif;fill:#25303b}}.h{{font-size:20px;"
                           "font-weight:600}}.s{{font-size:15px;font-weight:600}}.t{{font-size:13px}}.m{{font-"
                           "size:12px;"
                           "fill:#66727f}}.e{{font-size:12px;text-anchor:end}}.c{{font-size:12px;text-anchor:"
                           "middle}}</style>\n"
                           "<rect width=\"{0}\" height=\"{1}\" fill=\"#ffffff\" rx=\"10\"/>\n",
                           WIDTH, height) +
               body_ + "</svg>\n";
    }

  private:
    static std::string escaped(const std::string &words)
    {
        std::string text;
        for (char c : escape(words))
            text += c == '<' ? "&lt;" : c == '>' ? "&gt;" : c == '&' ? "&amp;" : std::string(1, c);
        return text;
    }
    std::string body_;
    std::map<std::string, std::string> cells_;
};

// Between two colors, part from 0 to 1.
std::string blend(const std::array<int, 3> &from, const std::array<int, 3> &to, double part)
{
    std::string color = "#";
    for (int i = 0; i < 3; i++)
        color += fmt::format("{:02x}", (int)lround(from[i] + (to[i] - from[i]) * std::clamp(part, 0.0, 1.0)));
    return color;
}

// How many of the buckets would have this length if the function spread the keys by chance alone.
double by_chance(const Map &map, uint64_t length)
{
    double load = (double)map.records / (double)map.chains.size();
    return load > 0 ? exp((double)length * log(load) - load - lgamma((double)length + 1)) : length == 0;
}

// Bars: the share of the buckets by length of chain, with a mark where chance would put it.
int draw_lengths(Svg &svg, const Map &map, int y)
{
    constexpr int HEIGHT = 130, COLUMNS = 11;
    std::array<uint64_t, COLUMNS> buckets = {};
    for (uint32_t length : map.chains)
        buckets[std::min<uint32_t>(length, COLUMNS - 1)]++;
    double most = 0, rest = 1, width = (double)INNER / COLUMNS;
    std::array<double, COLUMNS> chance;
    for (int i = 0; i < COLUMNS; i++) {
        chance[i] = i + 1 < COLUMNS ? by_chance(map, i) : std::max(rest, 0.0);
        rest -= chance[i];
        most = std::max({most, chance[i], (double)buckets[i] / (double)map.chains.size()});
    }
    svg.text(LEFT, y, "s", "Buckets by the length of their chain");
    svg.text(LEFT + 330, y, "m", "bars: this store; marks: what chance alone would give");
    y += 26;
    for (int i = 0; i < COLUMNS; i++) {
        double share = (double)buckets[i] / (double)map.chains.size(), x = LEFT + i * width;
        double high = HEIGHT * share / most, mark = HEIGHT * chance[i] / most;
        svg.box(x + 6, y + HEIGHT - high, width - 12, high,
                i == 0  ? "#c3ccd6"
                : i < 4 ? "#2f74b5"
                        : "#c8412f",
                2);
        svg.box(x + 3, y + HEIGHT - mark - 1, width - 6, 2, "#25303b");
        if (buckets[i])
            svg.text(x + width / 2, y + HEIGHT - std::max(high, mark) - 5, "c",
                     share >= 0.001 ? fmt::format("{:.1f}%", 100 * share) : thousands(buckets[i]));
        svg.text(x + width / 2, y + HEIGHT + 16, "c",
                 i + 1 < COLUMNS ? std::to_string(i) : fmt::format("{}+", i));
    }
    svg.box(LEFT, y + HEIGHT, INNER, 1, "#25303b");
    return y + HEIGHT + 44;
}

// A grid of cells over a long list: draw(cell, first, last, x, y, size) for each.
template <typename Draw> int draw_grid(Svg &svg, size_t count, int rows, int y, const Draw &draw)
{
    constexpr int COLUMNS = 120;
    constexpr double SIZE = (double)INNER / COLUMNS;
    size_t cells = std::min<size_t>(count, (size_t)COLUMNS * rows);
    for (size_t cell = 0; cell < cells; cell++) {
        size_t first = cell * count / cells, last = std::max(first + 1, (cell + 1) * count / cells);
        draw(first, last, LEFT + (double)(cell % COLUMNS) * SIZE, y + (double)(cell / COLUMNS) * SIZE,
             SIZE - 0.6);
    }
    svg.end_grid();
    return y + (int)ceil((double)((cells + COLUMNS - 1) / COLUMNS) * SIZE);
}

int draw_table(Svg &svg, const Map &map, int y)
{
    svg.text(LEFT, y, "s", "The table, bucket by bucket");
    svg.text(LEFT + 330, y, "m", "a cell is a run of buckets, the darker the more records each has");
    double load = (double)map.records / (double)map.chains.size(), dark = std::max(2.5 * load, 1.0);
    return draw_grid(svg, map.chains.size(), 12, y + 14,
                     [&](size_t first, size_t last, double x, double at, double size) {
                         double sum = 0;
                         for (size_t i = first; i < last; i++)
                             sum += map.chains[i];
                         svg.cell(x, at, size, size,
                                  blend({238, 241, 245}, {13, 59, 102},
                                        floor(sum / (double)(last - first) / dark * 24) / 24));
                     }) +
           40;
}

// The share of each state, as one bar with its legend.
int draw_shares(Svg &svg, const Map &map, int y)
{
    svg.text(LEFT, y, "s", "The record space, unit by unit");
    svg.text(LEFT + 330, y, "m",
             fmt::format("{} of {} bytes behind a header of {}; a cell is a run of them",
                         count_of(map.units.size(), "unit"), map.space.dn_sz, map.space.dn_base));
    y += 14;
    double x = LEFT;
    for (int state : {LIVE, HELD, FREE, OTHER, FRESH, RESERVE}) {
        double width = (double)map.count[state] / (double)map.units.size() * INNER;
        svg.box(x, y, width, 18, legends[state].color);
        x += width;
    }
    return y + 28;
}

int draw_space(Svg &svg, const Map &map, int y)
{
    return draw_grid(svg, map.units.size(), 14, y,
                     [&](size_t first, size_t last, double x, double at, double size) {
                         std::array<size_t, STATES> count = {};
                         for (size_t i = first; i < last; i++)
                             count[map.units[i]]++;
                         double top = at; // several states in one cell lie above each other
                         for (int state = 0; state < STATES; state++) {
                             double part = size * (double)count[state] / (double)(last - first);
                             if (count[state])
                                 svg.cell(x, top, size, part, legends[state].color);
                             top += part;
                         }
                     }) +
           22;
}

int draw_legend(Svg &svg, const Map &map, int y)
{
    int column = 0;
    for (int state : {LIVE, FREE, HELD, FRESH, RESERVE, OTHER}) {
        double x = LEFT + (column % 2) * (INNER / 2.0);
        svg.box(x, y - 11, 14, 14, legends[state].color, 2);
        svg.text(x + 22, y, "t",
                 fmt::format("{}: {} ({})", legends[state].name, thousands(map.count[state]),
                             percent(map.count[state], map.units.size())));
        svg.text(x + 200, y, "m", legends[state].words);
        y += column++ % 2 ? 22 : 0;
    }
    return y;
}
} // namespace

std::string store_map_svg(RawStore &store)
{
    Map map = look_at(store);
    const md_desc &table = store.md(store.active_md());
    Svg svg;
    svg.text(LEFT, 42, "h", fmt::format("store {}", store.dbname()));
    svg.text(
        LEFT, 66, "t",
        fmt::format("{} in {} buckets ({:.2f} each, {} at most, {}), record space of {}, records of {} size",
                    count_of(map.records, "record"), thousands(map.chains.size()),
                    (double)map.records / (double)map.chains.size(), map.longest, hash_name(table.hashfn),
                    human_size(store.ud(store.active_ud()).obj_sz), map.vector ? "variable" : "fixed"));
    int y = draw_lengths(svg, map, 104);
    y = draw_table(svg, map, y);
    y = draw_shares(svg, map, y);
    y = draw_space(svg, map, y);
    return svg.done(draw_legend(svg, map, y) + 8);
}

// The event ring of a store, read as bytes.
#include "shkvctl/ring.h"

#include <fmt/format.h>
#include <string.h>
#include <sys/time.h>
#include <unistd.h>
#include <x86intrin.h>

#include <algorithm>

namespace
{
struct Image {
    trace_ring head = {};
    std::vector<trace_rec> recs;

    bool operator==(const Image &other) const
    {
        return head.index == other.head.index && recs.size() == other.recs.size() &&
               (recs.empty() || memcmp(recs.data(), other.recs.data(), recs.size() * sizeof recs[0]) == 0);
    }
};

uint64_t ring_offset()
{
    return (uint64_t)sysconf(_SC_PAGESIZE);
}

// As many records as the header claims and the object holds.
Image read_image(const RawStore &store)
{
    Image image;
    uint64_t at = ring_offset() + sizeof(trace_ring), size = store.object(OBJ_SN).size;
    if (!store.read(OBJ_SN, ring_offset(), &image.head))
        return image;
    uint64_t fits = size > at ? (size - at) / sizeof(trace_rec) : 0;
    image.recs.resize(std::min<uint64_t>(image.head.count, fits));
    if (!store.read(OBJ_SN, at, image.recs.data(), image.recs.size() * sizeof(trace_rec)))
        image.recs.clear();
    return image;
}

// A ring that is written to while it is read is read again: two equal looks have no half record.
Image read_quiet(const RawStore &store)
{
    Image image = read_image(store);
    for (int round = 0; round < 5; round++) {
        Image again = read_image(store);
        if (again == image)
            break;
        image = std::move(again);
    }
    return image;
}

std::string fault_of(const RawStore &store, const Image &image)
{
    if (store.object(OBJ_SN).size < ring_offset() + sizeof(trace_ring))
        return fmt::format("the supernode ends before it, at {} bytes", store.object(OBJ_SN).file);
    if (image.head.magic != TRACE_MAGIC)
        return fmt::format("its magic word is {:#x} and not {:#x}", image.head.magic, TRACE_MAGIC);
    if (image.head.rec_sz != sizeof(trace_rec))
        return fmt::format("its records are said to have {} bytes and not {}", image.head.rec_sz,
                           sizeof(trace_rec));
    return image.recs.empty() ? "it has no room for a record" : "";
}

// Stamps lie between the ring's start and now, which are known as cycles and as time both: a
// stamp's time is in between in proportion, whatever the clock rate is said to be.
class Clock
{
  public:
    explicit Clock(const trace_ring &head)
        : start_tsc_(head.start_tsc), now_tsc_(__rdtsc()),
          start_((double)head.start_tv.tv_sec + (double)head.start_tv.tv_usec * 1e-6)
    {
        timeval tv;
        gettimeofday(&tv, nullptr);
        now_ = (double)tv.tv_sec + (double)tv.tv_usec * 1e-6;
        double rate = (double)(now_tsc_ - start_tsc_) / (now_ - start_);
        sane_ = now_tsc_ > start_tsc_ && now_ > start_ && start_ > 0 && rate > 1e6 && rate < 1e11;
    }
    std::optional<double> time(uint64_t tsc) const
    {
        if (!sane_ || tsc < start_tsc_ || tsc > now_tsc_)
            return std::nullopt;
        return start_ + (double)(tsc - start_tsc_) / (double)(now_tsc_ - start_tsc_) * (now_ - start_);
    }

  private:
    uint64_t start_tsc_, now_tsc_;
    double start_, now_ = 0;
    bool sane_ = false;
};

std::string text_of(const trace_rec &rec)
{
    char bytes[12];
    memcpy(bytes, (const char *)&rec + offsetof(trace_rec, arg), sizeof bytes);
    return std::string(bytes, strnlen(bytes, sizeof bytes));
}

// The event that begins at recs[at]; *at moves to the next one's.
RingEvent event_at(const std::vector<trace_rec> &recs, size_t *at, const Clock &clock)
{
    const trace_rec &rec = recs[(*at)++];
    uint32_t cls = rec.code & 0xff000000u;
    RingEvent event;
    event.id = rec.code & 0xffffffu;
    event.value = rec.arg;
    event.tsc = rec.tsc;
    event.time = clock.time(rec.tsc);
    if (cls == TRACE_ONE)
        return event;
    uint32_t partner = cls == TRACE_PAIR1 ? TRACE_PAIR2 : TRACE_STR2;
    if (cls != TRACE_PAIR1 && cls != TRACE_STR1) {
        event.unknown = true;
        event.value = rec.code;
    } else if (*at == recs.size() || recs[*at].code != (partner | event.id)) {
        event.torn = true;
    } else if (cls == TRACE_PAIR1) {
        event.second = recs[(*at)++].arg;
    } else {
        event.text = text_of(recs[(*at)++]);
    }
    return event;
}
} // namespace

Ring read_ring(const RawStore &store)
{
    Image image = read_quiet(store);
    Ring ring;
    ring.fault = fault_of(store, image);
    if (!ring.fault.empty())
        return ring;
    std::vector<trace_rec> &recs = image.recs;
    ring.room = (uint32_t)recs.size();
    size_t index = image.head.index < recs.size() ? image.head.index : 0;
    ring.wrapped = std::any_of(recs.begin() + (ptrdiff_t)index, recs.end(),
                               [](const trace_rec &rec) { return rec.code != 0; });
    std::rotate(recs.begin(), recs.begin() + (ptrdiff_t)index, recs.end());
    // Slots that were never written, and what is left of an event whose first record is gone.
    uint32_t cls = recs[0].code & 0xff000000u;
    size_t at = ring.wrapped && (cls == TRACE_PAIR2 || cls == TRACE_STR2) ? 1 : 0;
    for (Clock clock(image.head); at < recs.size();) {
        if (recs[at].code == 0)
            at++;
        else
            ring.events.push_back(event_at(recs, &at, clock));
    }
    return ring;
}

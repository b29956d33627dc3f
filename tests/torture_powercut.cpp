// Records all that a session does to its data file, and opens what a disk may contain of it after a
// power cut, by what was flushed: each pending sector may be there or not.
#include "platform/kvs/file_layout.h"
#include "platform/kvs/journal.h"
#include "torture_tape.h"

#include <algorithm>
#include <atomic>
#include <sys/stat.h>

namespace torture {
namespace {

using file = std::string; // its bytes

// What a cut did. A header or an entry is the newest of those that were not flushed.
struct kinds {
    enum kind {
        header_lost,
        header_torn,
        entry_lost,
        entry_torn,
        one_deep, // the journal has one commit more than the engine, or two
        two_deep,
        summary_in_flight,
        wrapped_in_flight,
        flush_failed,
        count
    };
    static constexpr const char *names[] = {
        "without the header", "with half of it", "without the entry",
        "with half of it",    "one deep",        "two deep",
        "summary in flight",  "wrap in flight",  "failed flush"};

    unsigned times[count] = {};
};

constexpr size_t page_size = 4096;

// The number of the commit that a header or an entry was written by, and what else is to be known
// of the writes that are not of the engine's pages.
bool is_header(const event &write)
{
    return write.offset < 2 * page_size && write.end - write.first < page_size;
}

size_t journal_offset(const file &all)
{
    for (size_t at = 2 * page_size; at + page_size < all.size(); at += page_size) {
        platform::overflow_header page;
        platform::journal_header header;
        memcpy(&page, all.data() + at, sizeof page);
        memcpy(&header, all.data() + at + sizeof page, sizeof header);
        if (page.flags == platform::overflow_page && page.number == at / page_size &&
            page.pages == (sizeof page + header.size + page_size - 1) / page_size)
            return at + sizeof page;
    }
    return 0;
}

// The disk at one point of the recording.
class disk {
public:
    void take(const event &it, dice &roll)
    {
        if (it.kind == what::write) {
            put(cache_, it, it.first, it.end);
            pending_.push_back({&it, false});
        }
        if (it.kind == what::return_synced)
            pending_.back().synced = true;
        if (it.kind == what::sync || it.kind == what::lost_sync) {
            const uint32_t share = it.kind == what::sync ? 100 : roll.below(101);
            write_pending(file_, roll, share);
            file_.resize(cache_.size());
            pending_.clear();
        }
        if (it.kind == what::lost_sync || it.kind == what::start)
            has_lost_ = it.kind == what::lost_sync;
        renamed_ |= it.kind == what::rename;
        name_synced_ |= renamed_ && it.kind == what::sync_names;
    }

    const file &cache() const { return cache_; }

    // What a cut leaves of the file.
    file after_cut(dice &roll, kinds &sum) const
    {
        const uint32_t shares[] = {0, 5, 50, 95, 100}, share = shares[roll.below(5)];
        file result = file_;
        if (roll.below(2) == 0) // the length may be there and the bytes not
            result.resize(cache_.size());
        classify(result, write_pending(result, roll, share), sum);
        return result;
    }

    const char *name_after_cut(dice &roll) const
    {
        return name_synced_ || (renamed_ && roll.below(2) == 0) ? "store.mdb" : "store.mdb.new";
    }

private:
    struct pending_write {
        const event *write;
        bool synced;
    };

    static void put(file &to, const event &write, size_t from, size_t end)
    {
        const size_t at = write.offset + from - write.first;
        to.resize(std::max(to.size(), at + end - from));
        to.replace(at, end - from, tape->bytes + from, end - from);
    }

    // A header lies within one sector. Some disks write less than that at once, but in order; the
    // number of the commit comes last.
    // Returns how many bytes of each came through.
    std::vector<size_t> write_pending(file &to, dice &roll, uint32_t share) const
    {
        const size_t sector = roll.below(2) == 0 ? 512 : page_size;
        std::vector<size_t> written;
        for (const auto &[write, synced] : pending_) {
            size_t &sum = written.emplace_back(0), end = write->end;
            if (is_header(*write) && !synced && share < 100 && roll.below(4) == 0)
                end -= 8 + roll.below(static_cast<uint32_t>(end - write->first - 8));
            for (size_t from = write->first, next; from < end; from = next) {
                next =
                    std::min(from + sector - (write->offset + from - write->first) % sector, end);
                if (!synced && roll.below(100) >= share)
                    continue;
                put(to, *write, from, next);
                sum += next - from;
            }
        }
        return written;
    }

    void classify(const file &result, const std::vector<size_t> &written, kinds &sum) const
    {
        const size_t journal = journal_offset(cache_);
        if (journal == 0)
            return;
        platform::journal_header ring;
        memcpy(&ring, cache_.data() + journal, sizeof ring);
        const auto is_entry = [&](const event &write) {
            return write.offset > journal && write.offset < journal + ring.size;
        };
        for (size_t i = 0; i < pending_.size(); ++i) {
            const event *const write = pending_[i].write;
            const bool is_less = written[i] < write->end - write->first;
            if (is_header(*write) && is_less)
                ++sum.times[written[i] == 0 ? kinds::header_lost : kinds::header_torn];
            if (!is_entry(*write) || write->end - write->first < sizeof(platform::entry_header))
                continue;
            platform::entry_header entry;
            memcpy(&entry, tape->bytes + write->first, sizeof entry);
            if (is_less)
                ++sum.times[written[i] == 0 ? kinds::entry_lost : kinds::entry_torn];
            sum.times[kinds::summary_in_flight] += entry.is_summary != 0;
            sum.times[kinds::wrapped_in_flight] +=
                entry.sequence > 1 && write->offset == journal + sizeof ring;
        }
        sum.times[kinds::flush_failed] += has_lost_;
        if (result.size() < journal + ring.size)
            return;
        const uint64_t depth =
            last_entry(result, {journal, ring.size, ring.salt}) - last_header(result);
        if (depth == 1 || depth == 2)
            ++sum.times[depth == 1 ? kinds::one_deep : kinds::two_deep];
    }

    static uint64_t last_entry(const file &it, const platform::journal_area &area)
    {
        uint64_t last = 0;
        const auto *const ring = reinterpret_cast<const unsigned char *>(it.data() + area.offset);
        platform::for_each_entry(area, ring, [&](uint64_t, const platform::entry_header &entry) {
            last = std::max(last, entry.transaction);
        });
        return last;
    }

public:
    static uint64_t last_header(const file &it)
    {
        uint64_t numbers[2];
        for (const size_t i : {0, 1})
            memcpy(&numbers[i],
                   it.data() + i * page_size + offsetof(platform::meta_data, transaction),
                   sizeof numbers[i]);
        return std::max(numbers[0], numbers[1]);
    }

private:
    file file_;  // what is there for sure
    file cache_; // what the system shows
    std::vector<pending_write> pending_;
    bool renamed_ = false, name_synced_ = false, has_lost_ = false;
};

constexpr unsigned changes_of_a_session = 200, states_of_a_session = 100;
constexpr uint32_t first_key = 1;

void record_session(uint64_t seed)
{
    tape->count = 0;
    const fs::path state = use_new_state("recorded");
    const int status = in_child([&] {
        dice losses{seed + 1};
        is_recording = true;
        contents all;
        open_databases();
        lost_syncs = losses.below(3) == 0 ? &losses : nullptr;
        for (unsigned i = 0; i < changes_of_a_session; ++i) {
            record(what::start);
            contents changed = all;
            const uint32_t result = change(seed + i, first_key, changed, true);
            need(result == 0 || lost_syncs != nullptr, "changing", result);
            if (result != 0)
                record(what::refused);
            else
                all = std::move(changed);
        }
        need(stored() == all, "what is stored in the end");
    });
    disk replayed;
    dice roll{0};
    for (unsigned i = 0; i < tape->count; ++i)
        replayed.take(tape->events[i], roll);
    file made = content_of(state / "store.mdb");
    made.resize(replayed.cache().size()); // without the room that was looked for after a failure
    need(status == 0 && replayed.cache() == made,
         "the recording makes the file that the engine made");
}

struct tally {
    unsigned found[3] = {}; // by finding
    kinds of_cuts;
};

// What two processes find that open the store at once.
struct openers {
    std::atomic<int> left; // that have not looked yet
    std::atomic<finding> found[2];
};

// Checks the store after a cut, and changes it once more when both have looked.
void try_out(const fs::path &state, const contents &before, const contents &after, openers &all,
             unsigned self, uint64_t seed)
{
    alarm(patience);
    open_databases();
    contents found = stored();
    const finding result = judge(found, before, after);
    const uint64_t last = check_journal(found);
    all.found[self] = result;
    --all.left;
    need(comes([&] { return all.left == 0; }), "the other process");
    if (result == finding::wrong || self != 0)
        return;
    need(last == 0 || last == disk::last_header(content_of(state / "store.mdb")),
         "the journal's last change is the last commit");
    need(change(seed, first_key, found, true) == 0, "a change after the cut");
    need(stored() == found, "the contents after one more change");
    static_cast<void>(check_journal(found));
}

finding try_state(const fs::path &state, const disk &now, dice roll, const contents &before,
                  const contents &after, kinds &sum)
{
    static openers &all = shared<openers>();
    for (const char *const old : {"store.mdb", "store.mdb.new", "store.mdb-lock"})
        fs::remove(state / old);
    std::ofstream(state / now.name_after_cut(roll), std::ios::binary) << now.after_cut(roll, sum);
    if (roll.below(2) == 0) // the lock file is never synced
        std::ofstream(state / "store.mdb-lock") << file(roll.below(2) * 65536, '\0');
    const uint64_t seed = roll();
    const bool are_two = roll.below(4) == 0;
    all.left = are_two ? 2 : 1;
    all.found[0] = all.found[1] = finding::wrong;
    const auto look = [&](unsigned self) {
        return start([&] { try_out(state, before, after, all, self, seed); });
    };
    const pid_t other = are_two ? look(1) : 0;
    const bool is_fine = finish(look(0)) == 0;
    if (are_two && (finish(other) != 0 || all.found[1] != all.found[0]))
        return finding::wrong;
    return is_fine ? all.found[0].load() : finding::wrong;
}

void try_session(unsigned states, dice &roll, uint64_t change_seed, tally &sum)
{
    const fs::path state = use_new_state("replayed");
    fs::create_directory(state);
    std::vector<unsigned> cuts(states);
    for (unsigned &cut : cuts)
        cut = roll.below(tape->count + 1);
    std::sort(cuts.begin(), cuts.end());

    disk now;
    dice losses{roll()};
    contents before, after;
    // A change may be kept that was refused, if nothing could be flushed since.
    bool is_flushed = true, is_certain = true;
    unsigned changes = 0, passed = 0;
    for (const unsigned cut : cuts) {
        for (; passed < cut; ++passed) {
            const event &it = tape->events[passed];
            now.take(it, losses);
            if (it.kind == what::sync || it.kind == what::lost_sync)
                is_flushed = it.kind == what::sync;
            if (it.kind == what::refused)
                after = before;
            is_certain = is_flushed || (is_certain && it.kind != what::refused);
            if (it.kind != what::start)
                continue;
            before = after;
            change(change_seed + changes++, first_key, after, false);
        }
        if (!is_certain)
            continue;
        const dice its{roll()}; // rolled here, as a child would roll the same each time
        ++sum.found[static_cast<int>(try_state(state, now, its, before, after, sum.of_cuts))];
    }
}

} // namespace

bool powercut(unsigned states, uint64_t seed)
{
    tape = &shared<recording>();
    setenv("VS_JOB_ID", "1", 1); // so that all share their trace buffers
    umask(077);
    dice roll{seed};
    tally sum;
    const auto &[without, with, lost] = sum.found;
    for (unsigned done = 0; done < states && lost == 0; done = without + with) {
        const uint64_t change_seed = uint64_t{roll()} << 32;
        setenv("VS_JOURNAL_SIZE", roll.below(2) == 0 ? "64K" : "1M", 1);
        record_session(change_seed);
        try_session(std::min(states_of_a_session, states - done), roll, change_seed, sum);
    }
    bool all_occurred = true;
    for (int i = 0; i < kinds::count; ++i) {
        all_occurred &= sum.of_cuts.times[i] != 0;
        printf("%s%u %s", i == 0 ? "torture powercut: " : ", ", sum.of_cuts.times[i],
               kinds::names[i]);
    }
    const bool is_long = states >= 2000;
    printf("\ntorture powercut: %u states, %u without and %u with the change in flight, %u lost, "
           "torn or failed%s (seed %llu)\n",
           without + with + lost, without, with, lost,
           is_long && !all_occurred ? ", NOT ALL KINDS OF CUTS" : "",
           static_cast<unsigned long long>(seed));
    return lost == 0 && (all_occurred || !is_long);
}

} // namespace torture

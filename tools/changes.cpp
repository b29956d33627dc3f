// A change of the store's journal as a sentence and as JSON.
#include "tools/changes.h"

#include "tools/values.h"

#include <algorithm>
#include <cstring>
#include <map>
#include <optional>

namespace vskvs {
namespace {

// A sentence lists no more elements and bytes than these; JSON has all.
constexpr size_t most_listed = 32;
constexpr size_t most_hex_bytes = 64;

using bytes = std::span<const unsigned char>;
using element = std::span<const uint32_t>;
using elements = std::vector<element>;

// The record before or after a change.
struct side {
    const database *db;
    bytes kept;
    uint32_t length; // of the whole record
    words record;    // with the elements that are kept; none if it is no record of the database

    [[nodiscard]] bool is_record() const { return !record.empty(); }
    [[nodiscard]] bool is_whole() const { return kept.size() == length; }
    [[nodiscard]] size_t count() const { return db->shape.count(record); }
};

words record_in(const database *db, uint32_t key, bytes kept, uint32_t length)
{
    if (db == nullptr || kept.size() < shape::word * db->shape.fixed())
        return {};
    words record(db->shape.fixed());
    memcpy(record.data(), kept.data(), record.size() * shape::word);
    if (key_of(record) != key || length != shape::word * db->shape.length(db->shape.count(record)))
        return {};
    const size_t known =
        (kept.size() / shape::word - db->shape.fixed()) / db->shape.element_words();
    record.resize(db->shape.length(known));
    memcpy(record.data(), kept.data(), record.size() * shape::word);
    return record;
}

side make_side(const kvs_change &change, const void *data, uint32_t kept, uint32_t length)
{
    const database *const db = database_of(change);
    const bytes all{static_cast<const unsigned char *>(data), kept};
    return {db, all, length, record_in(db, key_of(change.handle), all, length)};
}

side before(const kvs_change &change)
{
    return make_side(change, change.old_p, std::min(change.old_kept, change.old_length),
                     change.old_length);
}

side after(const kvs_change &change)
{
    return make_side(change, change.new_p, change.new_length, change.new_length);
}

void append(std::string &list, const std::string &part)
{
    list += (list.empty() ? "" : ", ") + part;
}

elements elements_of(const side &of)
{
    const shape &shape = of.db->shape;
    elements all;
    for (size_t end = shape.length(1); end <= of.record.size(); end += shape.element_words())
        all.push_back(shape.element(of.record, all.size()));
    return all;
}

// An element without fields is a version, or the id of a VS object.
std::string text_of(const database &db, element one)
{
    if (db.shape.element_fields().empty())
        return db.key_is_object ? std::to_string(one[0]) : hex(one[0]);
    std::string text;
    for (const vs_kvs::field &field : db.shape.element_fields())
        text += (text.empty() ? "" : " ") + (field.name + (" " + field_text(field, one)));
    return text;
}

// The elements, of which there are `count` in all.
std::string text_of(const database &db, const elements &all, size_t count)
{
    const size_t listed = std::min(all.size(), most_listed);
    std::string text;
    for (const element one : std::span(all).first(listed))
        append(text, text_of(db, one));
    if (count == 0)
        return "none";
    return listed == count ? text : text + " and " + std::to_string(count - listed) + " more";
}

std::string text_of(const side &of)
{
    if (!of.is_record()) {
        const std::string digits =
            hex_bytes(of.kept.first(std::min(of.kept.size(), most_hex_bytes)));
        return counted(of.length, "byte") + (digits.empty() ? "" : " ") + digits +
               (of.kept.size() > most_hex_bytes ? "..." : "");
    }
    const shape &shape = of.db->shape;
    std::string text;
    for (const vs_kvs::field &field : shape.fields().subspan(1))
        if (field.name != shape.count_name())
            append(text, field.name + (" " + field_text(field, of.record)));
    append(text, shape.elements() + (" " + text_of(*of.db, elements_of(of), of.count())));
    return text;
}

void append_changed_fields(std::string &list, const std::string &start,
                           std::span<const vs_kvs::field> fields, element old_words,
                           element new_words)
{
    for (const vs_kvs::field &field : fields) {
        const std::string from = field_text(field, old_words), to = field_text(field, new_words);
        if (from != to)
            append(list, start + field.name + " " + from + " -> " + to);
    }
}

// Elements are the same if they have the same first word. Of an old record that is not whole no
// more is said than what is known.
void append_changed_elements(std::string &list, const side &from, const side &to)
{
    const database &db = *from.db;
    std::string noun = db.shape.elements();
    if (noun.ends_with('s'))
        noun.pop_back();
    std::multimap<uint32_t, element> old;
    for (const element one : elements_of(from))
        old.emplace(one[0], one);
    elements added, removed;
    for (const element one : elements_of(to)) {
        const auto at = old.find(one[0]);
        if (at == old.end()) {
            added.push_back(one);
            continue;
        }
        const auto fields = db.shape.element_fields();
        if (!fields.empty())
            append_changed_fields(list,
                                  noun + " " + fields[0].name + " " + std::to_string(one[0]) + ": ",
                                  fields, at->second, one);
        old.erase(at);
    }
    for (const auto &[key, one] : old)
        removed.push_back(one);
    if (!removed.empty())
        append(list, noun + " " + text_of(db, removed, removed.size()) + " removed");
    if (!added.empty() && from.is_whole())
        append(list, noun + " " + text_of(db, added, added.size()) + " added");
}

std::string difference(const side &from, const side &to)
{
    const shape &shape = from.db->shape;
    const auto fields = shape.fields();
    std::string list;
    append_changed_fields(list, "", from.is_whole() ? fields.first(fields.size() - 1) : fields,
                          from.record, to.record);
    append_changed_elements(list, from, to);
    if (!list.empty())
        return list;
    if (!from.is_whole())
        return "no difference in what is kept";
    return from.record == to.record ? "written again, unchanged"
                                    : std::string("another order of ") + shape.elements();
}

std::string replacement(const side &from, const side &to)
{
    return ": " + (from.is_record() && to.is_record() ? difference(from, to)
                                                      : text_of(from) + " -> " + text_of(to));
}

std::string subject_of(const kvs_change &change, kvs_rec_hdl handle)
{
    const database *const db = database_of(change);
    return db != nullptr ? subject(*db, key_of(handle)) : "record " + hex(key_of(handle));
}

std::string what_of(const kvs_change &change)
{
    const side from = before(change), to = after(change);
    const std::string cut = from.is_whole()
                                ? ""
                                : " (of the old record " + std::to_string(from.kept.size()) +
                                      " of " + counted(from.length, "byte") + " are kept)";
    switch (change.kind) {
    case KVS_CHANGE_INSERTED:
        return " added: " + text_of(to);
    case KVS_CHANGE_REPLACED:
        return replacement(from, to) + cut;
    case KVS_CHANGE_DELETED:
        return " deleted, it was: " + text_of(from) + cut;
    default:
        return " changed in an unknown way (" + std::to_string(change.kind) +
               "): " + text_of(from) + " -> " + text_of(to) + cut;
    }
}

const char *name_of(uint32_t kind)
{
    constexpr const char *names[] = {"unknown", "inserted", "replaced", "deleted", "summary"};
    return kind < std::size(names) ? names[kind] : names[0];
}

// A record that was not there is null; one that is not whole, or no record, is null with its bytes
// beside it.
void add_side(json &to, const std::string &name, const side &of)
{
    const bool is_shown = of.is_record() && of.is_whole();
    to[name] = is_shown ? to_json(of.db->shape, of.record) : json();
    to[name + "_length"] = of.length;
    if (!is_shown && of.length != 0)
        to[name + "_bytes"] = hex_bytes(of.kept);
}

} // namespace

const database *database_of(const kvs_change &change)
{
    const auto at = std::ranges::find_if(
        databases, [&](const database *db) { return strcmp(db->name, change.db_name_p) == 0; });
    return at == databases.end() ? nullptr : *at;
}

change_text describe(const kvs_change &change)
{
    const std::string name = change.db_name_p;
    if (change.kind == KVS_CHANGE_SUMMARY)
        return {name, ": " + counted(change.count, "change") + " in one batch, first of " +
                          subject_of(change, change.handle) + ", last of " +
                          subject_of(change, change.last_handle)};
    const std::string start = database_of(change) == nullptr ? name + ": " : "";
    return {start + subject_of(change, change.handle), what_of(change)};
}

json to_json(const kvs_change &change, const std::string &user)
{
    const change_text text = describe(change);
    json document{{"sequence", change.sequence},
                  {"transaction", change.transaction},
                  {"time", utc_time(change.time, 9)},
                  {"process", change.process_p},
                  {"pid", change.pid},
                  {"job", change.job},
                  {"uid", change.user},
                  {"user", user},
                  {"kind", name_of(change.kind)},
                  {"database", change.db_name_p},
                  {"key", key_of(change.handle)}};
    if (change.kind == KVS_CHANGE_SUMMARY) {
        document["last_key"] = key_of(change.last_handle);
        document["count"] = change.count;
    } else {
        add_side(document, "old", before(change));
        add_side(document, "new", after(change));
    }
    document["text"] = text.subject + text.what;
    return document;
}

} // namespace vskvs

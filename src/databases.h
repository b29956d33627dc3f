// The list of databases. Opening, the tools, the catalogue of messages and the tests go through it;
// the library has exactly the databases in this list.
#pragma once

#include "clients/schema.h"
#include "objects/schema.h"
#include "registrations/schema.h"

#include <array>

namespace vs_kvs {

template <class... Dbs>
struct database_list {
};

// In the order of their selectors.
using databases = database_list<objects::database, clients::database, registrations::database>;

// What is common to all databases, as data.
struct database_entry {
    const char *name;
    kvs_hdl *handle;
    uint32_t selector;
    const record_layout *layout;
};

namespace detail {

template <class... Dbs>
consteval bool is_in_order(database_list<Dbs...>)
{
    uint32_t next = 0;
    return (... && (Dbs::selector == next++));
}

template <class... Dbs>
consteval bool are_layouts_complete(database_list<Dbs...>)
{
    return (... && is_complete(Dbs::layout));
}

template <class... Dbs>
consteval std::array<database_entry, sizeof...(Dbs)> table_of(database_list<Dbs...>)
{
    return {{{Dbs::name, &Dbs::handle(), Dbs::selector, &Dbs::layout}...}};
}

template <class... Dbs>
consteval bool are_lengths_kept(database_list<Dbs...>)
{
    return (... && (Dbs::layout.fixed() == Dbs::bytes.fixed &&
                    Dbs::layout.element() == Dbs::bytes.element));
}

static_assert(is_in_order(databases{}), "a database's index in the list is its selector");
static_assert(are_layouts_complete(databases{}), "a layout lists every field of its record");
static_assert(are_lengths_kept(databases{}), "a record's new length is a new format of the store");

template <class Each, class... Operations>
void for_each_of(operation_list<Operations...>, const Each &each)
{
    (each(Operations{}), ...);
}

template <class Each, class... Dbs>
void for_each_of(database_list<Dbs...>, const Each &each)
{
    (for_each_of(typename Dbs::operations{}, each), ...);
}

} // namespace detail

// Indexed by the selector.
inline constexpr auto database_entries = detail::table_of(databases{});

// Calls `each` with the struct of messages of every operation on a database.
template <class Each>
void for_each_database_operation(const Each &each)
{
    detail::for_each_of(databases{}, each);
}

} // namespace vs_kvs

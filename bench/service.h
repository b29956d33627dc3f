// This library as a peer of the others: through its public operations, on the real platform.
#pragma once

#include "kvs.h"
#include "work.h"

namespace bench {

class service {
public:
    static constexpr char name[] = "vs_kvs";

    service()
    {
        static const uint32_t initialized = vs_kvs_initialize(0);
        must(initialized == 0, name, "vs_kvs_initialize failed");
    }

    owned_record read(uint32_t id)
    {
        vs_objects_kvs_rec *record = nullptr;
        must(vs_kvs_get_vs_object_rec(id, &record) == 0, name, "a read failed");
        return owned_record(record);
    }

    listing list()
    {
        uint32_t count = 0;
        vs_objects_kvs_rec **records = nullptr;
        must(vs_kvs_get_vs_objects_all_recs(&count, &records) == 0, name, "a listing failed");
        return {reinterpret_cast<void **>(records), count};
    }

    void select(uint32_t id, uint32_t version)
    {
        must(vs_kvs_update_vs_object_selected_version(id, version) == 0, name, "a change failed");
    }

    void add_client(const clients_record &grown)
    {
        must(vs_kvs_add_new_client_info(grown.id, &grown.clients[elements]) == 0, name,
             "a change failed");
    }

    // What populating is given: the records in the arrays that the operation takes.
    struct population {
        explicit population(const std::vector<uint32_t> &ids)
            : versions(ids.size(), any.versions), counts(ids.size(), elements)
        {
            for (const uint32_t id : ids)
                entries.push_back({id, 1, {}});
        }
        population(const population &) = delete;
        population &operator=(const population &) = delete;

        const object_record any{};
        std::vector<vs_object_sel_entry> entries;
        const std::vector<const uint32_t *> versions;
        const std::vector<uint32_t> counts;
    };

    void populate(const population &all)
    {
        in_batch(g_kvs_hdl_vs_objects_db, [&] {
            return vs_kvs_insert_vs_objects(all.entries.data(),
                                            static_cast<uint32_t>(all.entries.size()),
                                            all.versions.data(), all.counts.data()) == 0;
        });
    }

    // Makes each of the records one of ten clients, whatever it was.
    void reset_clients(const std::vector<uint32_t> &ids)
    {
        in_batch(g_kvs_hdl_vs_clients_info_db, [&] {
            for (const uint32_t id : ids) {
                const clients_record fresh(id);
                kvs_rec_hdl handle;
                vs_kvs_delete_clients_info_rec(id);
                if (vs_kvs_insert_clients_info_rec(
                        reinterpret_cast<const vs_clients_info_kvs_rec *>(&fresh), &handle) != 0)
                    return false;
            }
            return true;
        });
    }

private:
    template <class Work>
    static void in_batch(kvs_hdl database, const Work &work)
    {
        must(kvs_batch_begin(database) == 0 && work() && kvs_batch_commit() == 0, name,
             "a batch failed");
    }
};

} // namespace bench

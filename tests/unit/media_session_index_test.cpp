#include "corvalin_lib/media_session_index.h"

#include <sys/syscall.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <functional>
#include <iostream>
#include <limits>
#include <memory>
#include <random>
#include <system_error>
#include <unordered_map>
#include <vector>

#include "tests/support/packet_builder.h"
#include "tests/support/pooled_packet.h"
#include "tests/support/refused_system_call.h"

namespace {

using namespace corvalin;
using media::Session;
using media::SessionIndex;

class MediaSessionIndexTest : public ::testing::Test {
protected:
    /// A session that remembers its id.
    rc_ptr<Session> session(uint64_t id) {
        auto& header = media::view_packet<media::PacketHeader>(m_packet->data);
        header.id = id;
        return {Session::make_zombie(header, 0)};
    }
    void insert(uint64_t id) { m_index->insert(id, session(id)); }
    /// The session under `id`, which must be in the table, or null.
    Session* found(uint64_t id) {
        rc_ptr<Session>* const entry = m_index->find(id);
        return entry == nullptr ? nullptr : entry->get();
    }

    const rc_ptr<media::PacketBuffer> m_packet = test::pooled(test::data_packet().bytes());
    const std::unique_ptr<SessionIndex> m_index = std::make_unique<SessionIndex>();
};

TEST_F(MediaSessionIndexTest, a_new_table_holds_nothing) {
    EXPECT_EQ(m_index->size(), 0u);
    EXPECT_EQ(m_index->find(0), nullptr);
    EXPECT_EQ(m_index->find(1), nullptr);
}

TEST_F(MediaSessionIndexTest, an_entry_is_found_under_its_id_and_no_other) {
    const rc_ptr<Session> entered = session(7);
    m_index->insert(7, entered);
    EXPECT_EQ(m_index->size(), 1u);
    EXPECT_EQ(found(7), entered.get());
    EXPECT_EQ(m_index->find(8), nullptr);
    EXPECT_EQ(m_index->find(0), nullptr);
    EXPECT_EQ(m_index->find(7 + (uint64_t{1} << 32)), nullptr);
}

TEST_F(MediaSessionIndexTest, every_64_bit_number_is_an_id) {
    const std::vector<uint64_t> ids = {0, 1, 0x7fffffffffffffff, 0x8000000000000000,
                                       std::numeric_limits<uint64_t>::max()};
    for (const uint64_t id : ids) {
        insert(id);
    }
    for (const uint64_t id : ids) {
        ASSERT_NE(found(id), nullptr) << id;
        EXPECT_EQ(found(id)->m_id, id);
    }
    EXPECT_EQ(m_index->size(), ids.size());
}

TEST_F(MediaSessionIndexTest, erase_removes_one_entry_and_lets_go_of_its_session) {
    const rc_ptr<Session> entered = session(7);
    m_index->insert(7, entered);
    insert(8);
    EXPECT_EQ(entered->reference_count(), 2);
    m_index->erase(7);
    EXPECT_EQ(entered->reference_count(), 1);
    EXPECT_EQ(m_index->find(7), nullptr);
    EXPECT_NE(m_index->find(8), nullptr);
    EXPECT_EQ(m_index->size(), 1u);
}

TEST_F(MediaSessionIndexTest, erasing_an_unknown_id_changes_nothing) {
    insert(7);
    m_index->erase(8);
    m_index->erase(7);
    m_index->erase(7);
    EXPECT_EQ(m_index->size(), 0u);
}

TEST_F(MediaSessionIndexTest, an_id_may_come_back_with_another_session) {
    insert(7);
    m_index->erase(7);
    const rc_ptr<Session> second = session(7);
    m_index->insert(7, second);
    EXPECT_EQ(found(7), second.get());
    EXPECT_EQ(m_index->size(), 1u);
}

TEST_F(MediaSessionIndexTest, an_entry_that_was_asked_for_is_found_where_it_has_moved_to) {
    constexpr uint64_t OTHERS = 20'000;
    const rc_ptr<Session> watched = session(7);
    EXPECT_EQ(m_index->find(7), nullptr);
    m_index->insert(7, watched);
    for (uint64_t id = 100; id < 100 + OTHERS; ++id) {
        ASSERT_EQ(found(7), watched.get()) << "ahead of " << id;
        insert(id); // its shard has grown by now and then
    }
    for (uint64_t id = 100; id < 100 + OTHERS; ++id) {
        ASSERT_EQ(found(7), watched.get()) << "ahead of the end of " << id;
        m_index->erase(id); // what stood behind it moves up
    }
    EXPECT_EQ(found(7), watched.get());
    m_index->erase(7);
    EXPECT_EQ(m_index->find(7), nullptr);
    m_index->insert(7, watched);
    EXPECT_EQ(found(7), watched.get());
    m_index->clear();
    EXPECT_EQ(m_index->find(7), nullptr);
}

TEST_F(MediaSessionIndexTest, more_ids_than_are_remembered_keep_their_entries) {
    constexpr uint64_t IDS = 100; // known and unknown ones by turns
    std::vector<rc_ptr<Session>> sessions;
    for (uint64_t id = 0; id < IDS; id += 2) {
        sessions.push_back(session(id));
        m_index->insert(id, sessions.back());
    }
    for (int round = 0; round < 3; ++round) {
        for (uint64_t id = 0; id < IDS; ++id) {
            m_index->prefetch_shard(m_index->lookup_of((id + 1) % IDS));
            SessionIndex::Lookup& lookup = m_index->lookup_of((id + 2) % IDS);
            m_index->prefetch_slot(lookup);
            EXPECT_EQ(m_index->entry_of(lookup), m_index->find((id + 2) % IDS)) << id;
            EXPECT_EQ(found(id), id % 2 == 0 ? sessions[id / 2].get() : nullptr) << id;
        }
    }
}

TEST_F(MediaSessionIndexTest, clear_and_the_end_of_the_table_let_go_of_all_sessions) {
    const rc_ptr<Session> first = session(1);
    const rc_ptr<Session> second = session(2);
    {
        SessionIndex index;
        index.insert(1, first);
        index.insert(2, second);
        index.clear();
        EXPECT_EQ(index.size(), 0u);
        EXPECT_EQ(index.find(1), nullptr);
        EXPECT_EQ(first->reference_count(), 1);
        index.insert(2, second);
        EXPECT_EQ(index.size(), 1u);
    }
    EXPECT_EQ(second->reference_count(), 1);
}

TEST_F(MediaSessionIndexTest, a_table_that_was_cleared_after_it_had_grown_is_as_new) {
    constexpr uint64_t IDS = 20'000;
    for (uint64_t id = 0; id < IDS; ++id) {
        insert(id);
    }
    m_index->clear();
    EXPECT_EQ(m_index->size(), 0u);
    for (uint64_t id = 0; id < IDS; ++id) {
        ASSERT_EQ(m_index->find(id), nullptr) << id;
    }
    for (uint64_t id = 0; id < IDS; id += 2) {
        insert(id);
    }
    EXPECT_EQ(m_index->size(), IDS / 2);
    for (uint64_t id = 0; id < IDS; ++id) {
        ASSERT_EQ(m_index->find(id) != nullptr, id % 2 == 0) << id;
    }
}

TEST_F(MediaSessionIndexTest, an_entry_may_be_changed_through_its_pointer) {
    insert(7);
    *m_index->find(7) = nullptr;
    ASSERT_NE(m_index->find(7), nullptr);
    EXPECT_EQ(found(7), nullptr);
}

TEST_F(MediaSessionIndexTest, agrees_with_a_plain_map_while_it_grows_to_200000_entries_and_shrinks_again) {
    std::random_device source;
    const auto seed = source();
    std::mt19937_64 random(seed);
    SCOPED_TRACE(testing::Message() << "seed " << seed);
    std::cout << "seed " << seed << "\n";

    constexpr std::size_t PEAK = 200'000;
    std::vector<rc_ptr<Session>>
        sessions; // shared by many entries: building one for each costs most of the time
    for (uint64_t number = 0; number < 64; ++number) {
        sessions.push_back(session(number));
    }
    std::unordered_map<uint64_t, Session*> model;
    std::vector<uint64_t> ids; // of the model, for picking one at random
    const auto check = [&](uint64_t id) {
        const auto expected = model.find(id);
        return found(id) == (expected == model.end() ? nullptr : expected->second);
    };
    const auto step = [&](unsigned inserts_of_100) {
        if (random() % 100 < inserts_of_100) {
            // From a small range as well, so that ids come back and neighbours are frequent.
            const uint64_t id = random() % 2 == 0 ? random() : random() % 1'000'000;
            if (!model.contains(id)) {
                const rc_ptr<Session>& entered = sessions[random() % sessions.size()];
                m_index->insert(id, entered);
                model.emplace(id, entered.get());
                ids.push_back(id);
            }
        } else if (!ids.empty()) {
            std::swap(ids[random() % ids.size()], ids.back());
            m_index->erase(ids.back());
            model.erase(ids.back());
            ids.pop_back();
        }
        return m_index->size() == model.size() && (ids.empty() || check(ids[random() % ids.size()])) &&
               check(random() % 1'000'000);
    };
    while (model.size() < PEAK) {
        ASSERT_TRUE(step(90));
    }
    for (const auto& [id, expected] : model) {
        ASSERT_EQ(found(id), expected);
    }
    while (model.size() > PEAK / 2) {
        ASSERT_TRUE(step(5));
    }
    for (const auto& [id, expected] : model) {
        ASSERT_EQ(found(id), expected);
    }
}

TEST_F(MediaSessionIndexTest, ids_chosen_against_a_plain_map_are_kept_apart_too) {
    struct Case {
        const char* description;
        std::function<uint64_t(uint64_t)> id;
    };
    constexpr uint64_t ENTRIES = 20'000;
    const std::vector<Case> cases = {
        {"multiples of a prime bucket count", [](uint64_t n) { return n * 1'056'323; }},
        {"multiples of a power of two", [](uint64_t n) { return n << 40; }},
        {"equal low words", [](uint64_t n) { return n << 32 | 0xdeadbeef; }},
        {"in sequence", [](uint64_t n) { return n; }},
    };
    for (const Case& row : cases) {
        SCOPED_TRACE(row.description);
        SessionIndex index;
        for (uint64_t n = 0; n < ENTRIES; ++n) {
            index.insert(row.id(n), session(row.id(n)));
        }
        EXPECT_EQ(index.size(), ENTRIES);
        for (uint64_t n = 0; n < ENTRIES; ++n) {
            rc_ptr<Session>* const entry = index.find(row.id(n));
            ASSERT_NE(entry, nullptr) << n;
            ASSERT_EQ((*entry)->m_id, row.id(n));
        }
        EXPECT_EQ(index.find(row.id(ENTRIES)), nullptr);
    }
}

TEST_F(MediaSessionIndexTest, without_a_random_key_there_is_no_table) {
    test::with_refused_system_call(SYS_getrandom, ENOSYS, [] {
        try {
            const SessionIndex index;
            ADD_FAILURE() << "built without a key";
        } catch (const std::system_error& failure) {
            EXPECT_EQ(failure.code().value(), ENOSYS);
        }
    });
}

} // namespace

// lumregion.hpp end to end, against the shared library as a host sees it.
#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "lumregion.hpp"

namespace {

namespace fs = std::filesystem;

lum::properties &properties() {
    static lum::properties configuration;
    return configuration;
}

enum class Colour : std::uint8_t { red = 0xA7, green };

struct Record {
    std::int16_t s16;
    std::uint16_t u16;
    std::int32_t s32;
    std::uint32_t u32;
    std::int64_t s64;
    std::uint64_t u64;
    double real;
    Colour colour;
    char tag[7];
    lum::offset_ptr<LumRegList> journal;
};

struct Person {
    std::int32_t id;
    char name[12];
};
constexpr auto by_id = [](const Person &person) { return person.id; };
constexpr auto by_name = [](const Person &person) { return person.name; };
using People = lum::hash_table<Person, by_id, by_name>;

struct Line {
    std::int32_t number;
};

class CxxTest : public testing::Test {
  protected:
    void SetUp() override {
        root = fs::temp_directory_path() / ("lumcxx." + std::to_string(getpid()));
        fs::create_directories(root);
    }
    void TearDown() override { fs::remove_all(root); }

    std::string directory() const { return root.string() + "/"; }
    // The bytes of both logs, where every committed record lies.
    std::string logs() const {
        std::string bytes;
        for (const char *log : {"data_0.log", "data_1.log"}) {
            std::ifstream file(root / log, std::ios::binary);
            bytes.append(std::istreambuf_iterator<char>(file), {});
        }
        return bytes;
    }

    fs::path root;
};

template <class T> std::string bytes_of(const T &value) {
    return std::string(reinterpret_cast<const char *>(&value), sizeof value);
}

TEST_F(CxxTest, ObjectsTablesAndListsComeBackAfterCloseAndOpen) {
    std::uint32_t table_id = 0, record_segment = 0;
    {
        lum::region data =
            lum::region::create("data", lum::region_type::persistent, directory().c_str());
        People people = People::create(data, 16);
        lum::segment segment = lum::segment::create(data);
        Record *record = segment.make(Record{});
        lum::list<Line> journal = lum::list<Line>::create(segment.get(), data.base());
        for (std::int32_t number = 2; number <= 4; ++number)
            journal.push_back({number});
        journal.push_front({1});
        journal.erase(journal.back());
        lum::log_store(segment, &record->journal, journal.header());
        people.insert({7, "Ada"});
        people.insert({9, "Brian"});
        people.erase(people.insert({8, "Chen"}));
        table_id = people.segment_id(), record_segment = segment.id();

        // Each store takes the value's bytes, -0.0 over +0.0 too, and logs them.
        std::vector<std::string> stored;
        auto store = [&](auto &field, const auto &value) {
            lum::log_store(segment, &field, value);
            EXPECT_EQ(bytes_of(field), stored.emplace_back(bytes_of(value)));
        };
        store(record->s16, std::int16_t{-0x5A17});
        store(record->u16, std::uint16_t{0xC3E1});
        store(record->s32, std::int32_t{-0x1234567});
        store(record->u32, std::uint32_t{0xFEDCBA98});
        store(record->s64, std::int64_t{-(1ll << 50)});
        store(record->u64, std::uint64_t{~0ull - 0x77});
        store(record->real, -0.0);
        store(record->colour, Colour::green);
        store(record->tag, "abcdef");
        data.commit();
        const std::string log = logs();
        for (const std::string &bytes : stored)
            EXPECT_NE(log.find(bytes), std::string::npos) << "a store was not logged";
    }
    lum::region data = lum::region::open("data", directory().c_str());
    data.verify();
    People people = People::open(data, table_id);
    ASSERT_TRUE(people);
    EXPECT_EQ(people.size(), 2u);
    EXPECT_EQ(people.find({9, ""})->id, 9);
    EXPECT_EQ(people.find({0, "Ada"}, 1)->id, 7);
    EXPECT_EQ(people.find({8, ""}), nullptr);
    std::vector<std::int32_t> ids;
    for (const Person &person : people.items())
        ids.push_back(person.id);
    std::ranges::sort(ids);
    EXPECT_EQ(ids, (std::vector<std::int32_t>{7, 9}));

    lum::segment segment = lum::segment::open(data, record_segment);
    EXPECT_EQ(std::ranges::distance(segment.chunks()), 5); // record, header, three lines
    const Record *record = static_cast<const Record *>(*segment.chunks().begin());
    EXPECT_EQ(record->colour, Colour::green);
    lum::list<Line> journal(segment.get(), data.base(), record->journal.get(data.base()));
    std::vector<std::int32_t> numbers;
    for (const Line &line : journal)
        numbers.push_back(line.number);
    EXPECT_EQ(numbers, (std::vector<std::int32_t>{1, 2, 3}));

    journal.destroy(); // frees every node and the header
    EXPECT_EQ(std::ranges::distance(segment.chunks()), 1);
    people.destroy(); // drops the table's segment
    std::error_code ec;
    EXPECT_FALSE(lum::segment::open(data, table_id, ec));
    EXPECT_EQ(ec.value(), LUM_RC_BAD_SEGMENT_ID);
}

TEST_F(CxxTest, FailuresComeAsExceptionsAndAsErrorCodes) {
    lum::region data = lum::region::create("data", lum::region_type::scratch, "");
    lum::segment segment = lum::segment::create(data);
    void *chunk = segment.allocate(64);
    segment.free(chunk);
    const std::string here = directory();
    struct Case {
        const char *operation;
        std::function<void(std::error_code &)> call;
        std::function<void()> throwing;
        std::int32_t code;
        const char *text;
    };
    const Case cases[] = {
        {"LumRegionOpen", [&](auto &ec) { lum::region::open("none", here.c_str(), {}, ec); },
         [&] { lum::region::open("none", here.c_str()); }, LUM_RC_BAD_FILES, "Invalid data files"},
        {"LumRegionCreate",
         [](auto &ec) { lum::region::create("a/b", lum::region_type::scratch, "", {}, ec); },
         [] { lum::region::create("a/b", lum::region_type::scratch, ""); }, LUM_RC_FAILURE,
         "General failure or bad argument"},
        {"LumSegmentOpen", [&](auto &ec) { lum::segment::open(data, 99, ec); },
         [&] { lum::segment::open(data, 99); }, LUM_RC_BAD_SEGMENT_ID, "No segment with this id"},
        {"LumMemFree", [&](auto &ec) { segment.free(chunk, ec); }, [&] { segment.free(chunk); },
         LUM_RC_DOUBLE_FREE, "Tried to free a free object"},
        {"LumPropMgrSetText", [](auto &ec) { properties().set("No.Such", "1", ec); },
         [] { properties().set("No.Such", "1"); }, ENOENT, "No such file or directory"},
        {"LumRegHashOpen", [&](auto &ec) { People::open(data, segment.id(), ec); },
         [&] { People::open(data, segment.id()); }, LUM_RC_FAILURE, "General failure"},
    };
    for (const Case &row : cases) {
        std::error_code ec;
        row.call(ec);
        EXPECT_EQ(ec, lum::make_error_code(row.code)) << row.operation;
        EXPECT_STREQ(ec.category().name(), "lumregion");
        try {
            row.throwing();
            ADD_FAILURE() << row.operation << " threw nothing";
        } catch (const lum::error &failure) {
            EXPECT_EQ(failure.result(), row.code);
            EXPECT_NE(std::string(failure.what()).find(row.operation), std::string::npos);
            EXPECT_NE(std::string(failure.what()).find(row.text), std::string::npos)
                << failure.what();
        }
    }
    EXPECT_EQ(lum::make_error_code(LUM_RC_NO_MEMORY), std::errc::not_enough_memory);
}

} // namespace

int main(int argc, char **argv) {
    testing::InitGoogleTest(&argc, argv);
    properties().parse(argc, argv); // takes -regionprotectall and the like
    lum::library started(".", &properties());
    return RUN_ALL_TESTS();
}

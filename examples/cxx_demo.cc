// lumcxxdemo - a C++ host that keeps a small ledger across runs.
//
// Accounts live in a persistent hash table found by id and by name; every
// payment goes into a journal, a persistent list in a segment of its own
// whose first chunk is the list's header, and each account keeps an
// offset_ptr to its latest journal entry. The first run finds no files and
// creates the ledger with three accounts; every run pays one account, prints the balances and the
// journal, commits and closes. The data directory is "lumcxx-data/", or argv[1] (ending in
// '/'). Errors come as lum::error exceptions.
#include <cstdio>
#include <stdexcept>
#include <string>
#include <string_view>
#include <sys/stat.h>

#include "lumregion.hpp"

namespace {

struct Entry {
    std::int32_t account;
    std::int64_t cents;
    char memo[32];
};

struct Account {
    std::int32_t id;
    char name[24];
    std::int64_t cents;
    lum::offset_ptr<Entry> latest;
};

constexpr auto by_id = [](const Account &account) { return account.id; };
constexpr auto by_name = [](const Account &account) { return std::string_view(account.name); };
using Accounts = lum::hash_table<Account, by_id, by_name>;

constexpr std::uint32_t kJournalSegment = 1; // created right after the table's

Account named(std::int32_t id, const char *name) {
    Account account{id, {}, 0, {}};
    std::snprintf(account.name, sizeof account.name, "%s", name);
    return account;
}

void open_ledger(lum::region &ledger) {
    Accounts accounts = Accounts::create(ledger, 64);
    for (const char *name : {"Ada", "Brian", "Chen"})
        accounts.insert(named(static_cast<std::int32_t>(accounts.size()) + 1, name));
    lum::segment journal_segment = lum::segment::create(ledger);
    lum::list<Entry>::create(journal_segment.get(), ledger.base());
    std::printf("opened the ledger with %u accounts\n", accounts.size());
}

// Pays @p cents to the account named @p name and notes it in the journal.
void pay(lum::region &ledger, Accounts &accounts, lum::list<Entry> &journal, const char *name,
         std::int64_t cents) {
    Account *account = accounts.find(named(0, name), 1);
    if (account == nullptr)
        throw std::runtime_error(std::string("no account ") + name);
    Entry entry{account->id, cents, {}};
    std::snprintf(entry.memo, sizeof entry.memo, "run %u: paid %s", journal.size() + 1, name);
    Entry *noted = journal.push_back(entry);
    lum::log_store(accounts.segment(), &account->cents, account->cents + cents);
    lum::log_store(accounts.segment(), &account->latest, {ledger.base(), noted});
}

void run(const char *directory) {
    lum::library started(directory);
    std::error_code missing;
    lum::region ledger = lum::region::open("ledger", directory, {}, missing);
    if (missing == lum::make_error_code(LUM_RC_BAD_FILES)) {
        ledger = lum::region::create("ledger", lum::region_type::persistent, directory);
        open_ledger(ledger);
    } else if (missing) {
        throw lum::error(missing, "LumRegionOpen");
    }
    Accounts accounts = Accounts::open(ledger, 0);
    lum::segment journal_segment = lum::segment::open(ledger, kJournalSegment);
    void *journal_header = *journal_segment.chunks().begin();
    lum::list<Entry> journal(journal_segment.get(), ledger.base(),
                             static_cast<LumRegList *>(journal_header));
    pay(ledger, accounts, journal, journal.size() % 2 ? "Chen" : "Ada", 10'00);
    ledger.commit();

    for (const Account &account : accounts.items()) {
        const Entry *latest = account.latest.get(ledger.base());
        std::printf("%-6s %6.2f  %s\n", account.name, static_cast<double>(account.cents) / 100,
                    latest ? latest->memo : "-");
    }
    std::printf("journal:\n");
    for (const Entry &entry : journal)
        std::printf("  %s\n", entry.memo);
}

} // namespace

int main(int argc, char **argv) {
    const char *directory = argc > 1 ? argv[1] : "lumcxx-data/";
    mkdir(directory, 0755);
    try {
        run(directory);
        return 0;
    } catch (const std::exception &failure) {
        std::fprintf(stderr, "lumcxxdemo: %s\n", failure.what());
        return 1;
    }
}

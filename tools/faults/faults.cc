// lumregion-faults: tries every fault the library may meet and checks that
// it comes through each with its promises kept.
//
//   lumregion-faults --io | --malloc | --damage [--cases N] [--cuts N]
//                    [--seed S] [--dir D] [--show] [--only N] [--in-process]
//
// --io      runs the scripted workload (workload.h) once to number its file
//           calls, then once per call with that call failing: once with
//           EIO, and for writes also with ENOSPC and as a short write; each
//           both "once" and "from then on".
//           --only N tries call N alone; --show prints the library's reports.
// --malloc  runs it once per lum_malloc it reaches, with that one failing.
// --damage  cuts and changes the bytes of a region's files (damage.cc):
//           --cases seeded changes (100000), every cut of each file or,
//           with --cuts, a seeded sample of that many per file;
//           --in-process opens each case in this program, not in a child.
//
// Each case runs in a child under an alarm. After it, a second child opens
// the region with nothing failing and judges it: the image must verify and
// equal a commit no older than the last one acknowledged before the fault.
// A failure the workload met should show: as a result, a failed log state
// or a failure report; those that did not are counted by call. Exit status
// 0 when no case crashed, hung, leaked, lost a commit or left an image that
// does not verify.
#include "faults.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include "io_faults.h"
#include "lumregion.h"
#include "workload.h"

namespace faults {

Ending RunInChild(const std::function<void()> &body, unsigned seconds) {
    fflush(nullptr);
    pid_t child = fork();
    if (child == 0) {
        alarm(seconds);
        body();
        exit(0);
    }
    int status = 0;
    if (child < 0 || waitpid(child, &status, 0) != child)
        return Ending::kCrashed;
    if (WIFSIGNALED(status))
        return WTERMSIG(status) == SIGALRM ? Ending::kHung : Ending::kCrashed;
    int code = WEXITSTATUS(status);
    return code == 0 ? Ending::kClean : code == 23 ? Ending::kLeaked : Ending::kCrashed;
}

void MakeEmptyDirectory(const std::string &path) {
    std::filesystem::remove_all(path);
    std::filesystem::create_directories(path);
}

namespace {

constexpr unsigned kAlarmSeconds = 30;
constexpr uint32_t kMaxCalls = 1 << 16;

struct Tally {
    uint64_t cases = 0, crashed = 0, hung = 0, leaked = 0, lost = 0, unverified = 0, hidden = 0;
    uint64_t refused = 0; // opens refused with nothing acknowledged: allowed
    // Failures that showed neither as a result nor in a report, by the
    // call that failed. The judge decides whether they cost anything.
    std::map<std::string, uint64_t> hidden_by_call;

    bool Clean() const { return crashed + hung + leaked + lost + unverified == 0; }
    void Print(const char *mode, bool with_leaks) const {
        printf("%s: %llu cases, %llu crashed, %llu hung, %llu lost, %llu unverified, %llu hidden",
               mode, (unsigned long long)cases, (unsigned long long)crashed,
               (unsigned long long)hung, (unsigned long long)lost, (unsigned long long)unverified,
               (unsigned long long)hidden);
        if (with_leaks)
            printf(", %llu leaked", (unsigned long long)leaked);
        printf(", %llu refused with nothing acknowledged\n", (unsigned long long)refused);
        if (hidden > 0) {
            printf("%s: hidden failures by call:", mode);
            for (const auto &[call, count] : hidden_by_call)
                printf(" %s %llu", call.c_str(), (unsigned long long)count);
            printf("\n");
        }
    }
};

// One case: the workload under `inject`, then the judge on what it left.
// `reached` tells after the workload whether the fault was met.
struct Case {
    std::string call; // the call that fails
    std::string name;
    std::function<void()> inject;
    std::function<bool()> reached;
};

struct Runner {
    std::string directory; // ends in '/'
    Outcome *outcome;
    bool show;
    uint32_t root = 0; // of the workload run without faults
    Tally tally;

    void Say(const Case &what, const char *verdict) {
        fprintf(stderr,
                "%s: %s (attempted %lld, acknowledged %lld, recovered %lld, open %d, "
                "verify %d)\n",
                what.name.c_str(), verdict, (long long)outcome->attempted,
                (long long)outcome->acknowledged, (long long)outcome->recovered,
                outcome->open_result, outcome->verify_result);
    }

    // Runs the workload of `what`; returns whether its fault was met.
    bool Run(const Case &what) {
        MakeEmptyDirectory(directory);
        *outcome = Outcome{};
        Ending ending = RunInChild(
            [&] {
                if (!StartLibrary(directory, outcome, show))
                    exit(2);
                what.inject();
                RunWorkload(directory, outcome);
                outcome->calls = IoCalls();
                outcome->reached = what.reached();
                LumRegionShutdown();
            },
            kAlarmSeconds);
        ++tally.cases;
        bool reached = outcome->reached != 0;
        if (root == 0)
            root = outcome->root; // the same in every run
        if (ending != Ending::kClean) {
            ++(ending == Ending::kHung     ? tally.hung
               : ending == Ending::kLeaked ? tally.leaked
                                           : tally.crashed);
            Say(what, ending == Ending::kHung     ? "hung"
                      : ending == Ending::kLeaked ? "leaked"
                                                  : "crashed");
            return true;
        }
        if (outcome->verify_result != 0) {
            ++tally.unverified;
            Say(what, "the workload's region does not verify");
        }
        if (reached && outcome->failures_shown == 0) {
            ++tally.hidden;
            ++tally.hidden_by_call[what.call];
            if (show)
                Say(what, "a failure showed nowhere");
        }
        Judge(what);
        return reached;
    }

    // Opens what the workload left, with nothing failing.
    void Judge(const Case &what) {
        int64_t acknowledged = outcome->acknowledged, last = outcome->attempted;
        outcome->verify_result = 0;
        Ending ending = RunInChild(
            [&] {
                if (!StartLibrary(directory, nullptr, show))
                    exit(2);
                JudgeRegion(directory, root, last, outcome);
                _exit(0); // the region stays open: its files are judged as they are
            },
            kAlarmSeconds);
        if (ending != Ending::kClean) {
            ++tally.crashed;
            Say(what, "the judge's open crashed or hung");
        } else if (outcome->verify_result != 0) {
            ++tally.unverified;
            Say(what, "the recovered image does not verify");
        } else if (outcome->open_result != 0 && acknowledged < 0) {
            ++tally.refused;
        } else if (acknowledged >= 0 && outcome->recovered < acknowledged) {
            ++tally.lost;
            Say(what, "an acknowledged commit was lost");
        }
    }
};

const char *FailureName(IoFailure failure) {
    return failure == IoFailure::kError     ? "EIO"
           : failure == IoFailure::kNoSpace ? "ENOSPC"
                                            : "short";
}

int RunIo(Runner &runner, int64_t only) {
    auto *entries =
        static_cast<IoEntry *>(mmap(nullptr, kMaxCalls * sizeof(IoEntry), PROT_READ | PROT_WRITE,
                                    MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    runner.Run(
        {"", "count", [&] { InstallIoFaults({}, entries, kMaxCalls); }, [] { return false; }});
    int64_t calls = runner.outcome->calls;
    if (!runner.tally.Clean() || !runner.outcome->finished || calls <= 0 || calls > kMaxCalls) {
        fprintf(stderr, "io: the workload does not run without faults\n");
        return 2;
    }
    runner.tally = Tally{};
    for (int64_t number = 1; number <= calls; ++number) {
        if (only > 0 && number != only)
            continue;
        for (IoFailure failure : {IoFailure::kError, IoFailure::kNoSpace, IoFailure::kShortWrite}) {
            IoEntry entry = entries[number - 1];
            if (failure != IoFailure::kError && !IsWrite(entry))
                continue;
            for (bool from_on : {false, true}) {
                IoPlan plan{number, from_on, failure};
                runner.Run({IoEntryName(entry),
                            "io call " + std::to_string(number) + " (" + IoEntryName(entry) + ") " +
                                FailureName(failure) + (from_on ? " from on" : " once"),
                            [plan] { InstallIoFaults(plan, nullptr, 0); }, IoFaultFired});
            }
        }
    }
    runner.tally.Print("io", false);
    printf("io: the workload makes %lld file calls\n", (long long)calls);
    return runner.tally.Clean() ? 0 : 1;
}

// True when the failure scheduled `number` lum_mallocs ago is still to
// come: one of the next `number` calls fails.
bool MallocFailurePending(uint32_t number) {
    for (uint32_t i = 0; i < number; ++i) {
        void *block = lum_malloc(1);
        if (block == nullptr)
            return true;
        lum_free(block);
    }
    return false;
}

int RunMalloc(Runner &runner) {
    runner.Run({"", "count", [] {}, [] { return false; }});
    if (!runner.tally.Clean() || !runner.outcome->finished) {
        fprintf(stderr, "malloc: the workload does not run without faults\n");
        return 2;
    }
    runner.tally = Tally{};
    for (uint32_t number = 1;; ++number) {
        Case failing{"lum_malloc", "malloc " + std::to_string(number),
                     [number] { lum_malloc_fail_at(number); },
                     [number] { return !MallocFailurePending(number); }};
        if (!runner.Run(failing)) {
            --runner.tally.cases; // the failure came after the workload's end
            break;
        }
    }
    runner.tally.Print("malloc", true);
    return runner.tally.Clean() ? 0 : 1;
}

int Usage(const char *self) {
    fprintf(stderr,
            "usage: %s --io | --malloc | --damage [--cases N] [--cuts N] [--seed S]\n"
            "       [--dir D] [--show] [--only N] [--in-process]\n",
            self);
    return 2;
}

} // namespace
} // namespace faults

int main(int argc, char **argv) {
    std::string mode, base = "/tmp";
    uint64_t cases = 100000, seed = 1;
    int64_t only = 0;
    uint64_t cuts = 0;
    bool show = false, in_process = false;
    for (int i = 1; i < argc; ++i) {
        std::string flag = argv[i];
        if (flag == "--io" || flag == "--malloc" || flag == "--damage")
            mode = flag;
        else if (flag == "--show")
            show = true;
        else if (flag == "--in-process")
            in_process = true;
        else if (i + 1 < argc && flag == "--cases")
            cases = strtoull(argv[++i], nullptr, 10);
        else if (i + 1 < argc && flag == "--cuts")
            cuts = strtoull(argv[++i], nullptr, 10);
        else if (i + 1 < argc && flag == "--only")
            only = strtoll(argv[++i], nullptr, 10);
        else if (i + 1 < argc && flag == "--seed")
            seed = strtoull(argv[++i], nullptr, 10);
        else if (i + 1 < argc && flag == "--dir")
            base = argv[++i];
        else
            return faults::Usage(argv[0]);
    }
    if (mode.empty())
        return faults::Usage(argv[0]);
    std::string work = base + "/lumfaults-XXXXXX";
    if (mkdtemp(work.data()) == nullptr) {
        fprintf(stderr, "cannot make a directory in %s: %s\n", base.c_str(), strerror(errno));
        return 2;
    }
    int status;
    if (mode == "--damage") {
        status = faults::RunDamage(work + "/", cases, cuts, seed, in_process);
    } else {
        faults::Runner runner{work + "/case/", faults::SharedOutcome(), show, 0, {}};
        status = mode == "--io" ? faults::RunIo(runner, only) : faults::RunMalloc(runner);
    }
    std::filesystem::remove_all(work);
    return status;
}

/*
 * l2vpn-simulate: the library under random scenarios, compared with a model of it, event by event.
 *
 * Every scenario comes from its seed alone. One that fails is cut down and printed with the command that
 * runs it again.
 */
#include "command_line.h"
#include "runner.h"

#include <chrono>
#include <csignal>
#include <cstring>
#include <iostream>
#include <unistd.h>

// NOLINTNEXTLINE(bugprone-reserved-identifier, readability-identifier-naming)
extern "C" __attribute__((weak)) void __sanitizer_set_death_callback(void (*callback)());

namespace {

using namespace simulation;

/* A model with a mistake is found out within so many seeds, and by no more steps than these. */
constexpr std::uint64_t seeds_to_find = 300;
constexpr std::size_t steps_to_show = 12;

/* With fewer scenarios than this it is no fault when something did not happen. */
constexpr std::uint64_t seeds_that_cover = 500;

/* For whoever has to report a crash: a signal handler, or a sanitizer at its end. */
char again[512];

void say_where()
{
    for (const char *const text : {being_run(), static_cast<const char *>(again)})
        (void)!write(STDERR_FILENO, text, std::strlen(text));
}

void on_crash(int signal)
{
    say_where();
    std::signal(signal, SIG_DFL);
    std::raise(signal);
}

void on_alarm(int)
{
    constexpr char text[] = "a scenario takes no end; its steps so far:\n";
    (void)!write(STDERR_FILENO, text, sizeof text - 1);
    (void)!write(STDERR_FILENO, steps_so_far(), std::strlen(steps_so_far()));
    say_where();
    _exit(1);
}

void watch_for_crashes()
{
    std::signal(SIGALRM, on_alarm);
    std::signal(SIGABRT, on_crash);
    if (__sanitizer_set_death_callback != nullptr)
        return __sanitizer_set_death_callback(say_where);
    for (const int signal : {SIGSEGV, SIGBUS, SIGFPE, SIGILL})
        std::signal(signal, on_crash);
}

void print(const std::optional<event> &what)
{
    std::cout << (what ? to_string(*what) : "nothing more") << "\n";
}

void print(const parting &found, const std::vector<step> &steps)
{
    std::cout << "  at step " << found.step << ": "
              << (found.step < steps.size() ? to_string(steps[found.step]) : "the end") << "\n";
    constexpr std::size_t context = 5;
    const std::size_t from = found.before.size() - std::min(found.before.size(), context);
    for (std::size_t i = from; i < found.before.size(); ++i)
        std::cout << "    agreed    " << to_string(found.before[i]) << "\n";
    std::cout << "    expected  ";
    print(found.expected);
    std::cout << "    actual    ";
    print(found.actual);
}

void print_shortened(const std::vector<step> &fewer)
{
    std::cout << "  shortened to " << fewer.size() << " steps:\n";
    for (std::size_t i = 0; i < fewer.size(); ++i)
        std::cout << "    " << i << "  " << to_string(fewer[i]) << "\n";
}

/* What fails after a step fails without the steps that follow. */
std::vector<step> shortened_to_parting(const scenario &what, std::vector<step> steps, const parting &found)
{
    steps.resize(std::min(steps.size(), found.step + 1));
    return shortened(std::move(steps), [&what](const std::vector<step> &fewer) {
        coverage unseen;
        return run(what, fewer, unseen).has_value();
    });
}

void explain(const scenario &what, const std::vector<step> &steps, const parting &found)
{
    std::cout << "seed " << what.seed << " fails\n";
    print(found, steps);
    const std::vector<step> fewer = shortened_to_parting(what, steps, found);
    print_shortened(fewer);
    coverage unseen;
    if (const auto parted = run(what, fewer, unseen))
        print(*parted, fewer);
}

int simulate(const options &given, const char *program)
{
    using clock = std::chrono::steady_clock;
    const auto until = clock::now() + std::chrono::minutes(given.minutes);
    coverage seen;
    std::uint64_t failed = 0;
    std::uint64_t seeds = 0;
    for (; seeds < given.seeds && (given.minutes == 0 || clock::now() < until); ++seeds) {
        const std::uint64_t seed = given.first + seeds;
        const std::vector<step> steps = generate(seed, given.steps);
        const scenario what{seed};
        if (given.verbose)
            std::cout << "seed " << seed << ": " << steps.size() << " steps" << std::endl;
        std::snprintf(again, sizeof again, "run it again: %s --seed %llu --steps %u\n", program,
                      static_cast<unsigned long long>(seed), given.steps);
        const bool alone = given.seeds == 1;
        if (alone && !survives(what, steps)) {
            std::cout << "seed " << seed << " ends the process\n";
            print_shortened(shortened(steps, [&what](const auto &fewer) { return !survives(what, fewer); }));
            std::cout << std::flush; /* and now for everybody to see */
        }
        const auto found = run(what, steps, seen, given.verbose && alone ? &std::cout : nullptr);
        if (!found)
            continue;
        ++failed;
        explain(what, steps, *found);
        std::cout << again << std::flush;
    }

    if (given.verbose) {
        for (const std::string &line : seen.table())
            std::cout << line << "\n";
    }
    const std::vector<std::string> missing =
        seeds < seeds_that_cover ? std::vector<std::string>() : seen.missing();
    for (const std::string &line : missing)
        std::cout << "never happened: " << line << "\n";
    std::cout << seeds << " seeds from " << given.first << ", " << failed << " failed, " << missing.size()
              << " kinds never happened\n";
    return failed == 0 && missing.empty() ? 0 : 1;
}

/* A check that cannot fail is none: every mistake of the model is to be found, and shown in a few steps. */
int check_itself(const options &given)
{
    int missed = 0;
    for (std::size_t number = 1; number < static_cast<std::size_t>(fault::count_); ++number) {
        const auto mistake = static_cast<fault>(number);
        bool found = false;
        for (std::uint64_t seed = 1; seed <= seeds_to_find && !found; ++seed) {
            const scenario what{seed, mistake};
            const std::vector<step> steps = generate(seed, given.steps);
            coverage unseen;
            const auto parted = run(what, steps, unseen);
            if (!parted)
                continue;
            found = true;
            const std::vector<step> fewer = shortened_to_parting(what, steps, *parted);
            const bool few = fewer.size() <= steps_to_show;
            std::cout << (few ? "found" : "not cut down") << ": " << name_of(mistake) << ", by seed " << seed
                      << ", shown in " << fewer.size() << " steps of " << steps.size() << "\n";
            for (const step &each : fewer) {
                if (given.verbose || !few)
                    std::cout << "    " << to_string(each) << "\n";
            }
            missed += few ? 0 : 1;
        }
        if (!found) {
            std::cout << "not found: " << name_of(mistake) << "\n";
            ++missed;
        }
    }
    return missed == 0 ? 0 : 1;
}

int program(int argc, char **argv)
{
    options given;
    if (const auto ended = read_command_line(argc, argv, given))
        return *ended;
    watch_for_crashes();
    return given.self_test ? check_itself(given) : simulate(given, argv[0]);
}

} // namespace

int main(int argc, char **argv)
{
    try {
        return program(argc, argv);
    } catch (const std::exception &error) {
        std::fprintf(stderr, "%s: %s\n", argv[0], error.what());
    } catch (...) {
        std::fprintf(stderr, "%s: an unknown exception\n", argv[0]);
    }
    return 2;
}

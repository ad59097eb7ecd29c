// The crrecord command.

#include "verbs/verbs.h"

#include <crrecord/status.h>

#include <cstdlib>
#include <new>
#include <sstream>

#include <fcntl.h>
#include <openssl/crypto.h>
#include <unistd.h>

namespace crrecord::tool {

namespace {

// If a standard file is closed, the next file opened would get its number and receive its output. Opens such numbers
// for the wrong direction, so that their use fails.
void OccupyStandardFiles() {
    for (int const file : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (::fcntl(file, F_GETFD) == -1) {
            [[maybe_unused]] int const opened = ::open("/dev/null", file == STDIN_FILENO ? O_WRONLY : O_RDONLY);
        }
    }
}

void* OrEndWithoutMemory(void* block) {
    if (!block) {
        RemoveUnfinishedOutput();
        static constexpr char kText[] = "crrecord: not enough memory\n";
        [[maybe_unused]] ssize_t const written = ::write(STDERR_FILENO, kText, sizeof kText - 1);
        ::_exit(static_cast<int>(ExitCode::CouldNotWork));
    }
    return block;
}

// OpenSSL may crash after a failed allocation, mostly on a new thread. The command ends at such a failure.
// Throws: Failure if OpenSSL has allocated memory already and therefore keeps its functions.
void EndWhenCryptoHasNoMemory() {
    int const set = CRYPTO_set_mem_functions(
        [](std::size_t size, char const*, int) { return size == 0 ? nullptr : OrEndWithoutMemory(std::malloc(size)); },
        [](void* block, std::size_t size, char const*, int) {
            if (size == 0) {
                std::free(block);
                return static_cast<void*>(nullptr);
            }
            return OrEndWithoutMemory(std::realloc(block, size));
        },
        [](void* block, char const*, int) { std::free(block); });
    if (set != 1) {
        throw Failure("a preloaded library has used OpenSSL before the command, which cannot replace its allocation");
    }
}

// Returns: the verbs that were recognised: "crrecord segments build".
std::string Chosen(CLI::App const& app) {
    auto const verbs = app.get_subcommands();
    return app.get_name() + (verbs.empty() ? "" : " " + Chosen(*verbs.front()));
}

// Returns: the message for a wrong command line. CLI11's texts for the number of values of an option are hard to read.
std::string ReasonOf(CLI::ParseError const& error) {
    std::string const text = error.what();
    if (error.get_name() == "ArgumentMismatch") {
        std::string const option = text.substr(0, text.find(':'));
        if (text.ends_with(" missing")) {
            return option + ": expected a value after it";
        }
        if (text.find("At Most 1 required") != std::string::npos) {
            return option + ": expected only once";
        }
    }
    return text;
}

// Prints the help or the version, which are errors to CLI11. Throws: Failure for any other error.
ExitCode EndParsing(CLI::App& app, CLI::ParseError const& error, Output& out) {
    if (error.get_exit_code() == static_cast<int>(CLI::ExitCodes::Success)) {
        std::ostringstream text;
        app.exit(error, text, text);
        out.Write(text.view());
        out.Flush();
        return ExitCode::AllWell;
    }
    // An unknown word is a better explanation than a missing verb.
    std::vector<std::string> const unknown = app.remaining();
    bool const misspelt = app.get_subcommands().empty() && !unknown.empty();
    throw Failure((misspelt ? "no such verb or option: " + unknown.front() : ReasonOf(error)) +
                  " (try: " + Chosen(app) + " --help)");
}

// Handles arguments that CLI11 would not take literally.
void TakeLiterally(int argc, char** argv) {
    static char sameFile[] = "./++";
    for (int i = 1; i < argc && std::string_view(argv[i]) != "--"; ++i) {
        std::string_view const argument = argv[i];
        if (argument == "++") {
            argv[i] = sameFile; // "++" would end the verb
        }
        // CLI11 would use the next argument as the value.
        if (argument.starts_with("--") && argument.find('=') == argument.size() - 1) {
            throw Failure(std::string(argument) + ": expected a value after the =");
        }
    }
}

ExitCode Run(int argc, char** argv) {
    TakeLiterally(argc, argv);
    Output out(STDOUT_FILENO, "standard output");
    Action chosen;
    CLI::App app;
    AddVerbs(app, chosen);
    try {
        app.parse(argc, argv);
    } catch (CLI::ParseError const& error) {
        return EndParsing(app, error, out);
    }
    OutputBeforeMessages const inOrder(out);
    try {
        ExitCode const result = chosen(out);
        out.Flush();
        return result;
    } catch (...) {
        out.Flush(); // the results before the failure
        throw;
    }
}

} // namespace

} // namespace crrecord::tool

int main(int argc, char** argv) {
    using namespace crrecord::tool;
    ExitCode result = ExitCode::CouldNotWork;
    try {
        OccupyStandardFiles();
        EndWhenCryptoHasNoMemory();
        result = Run(argc, argv);
    } catch (Cr_ErrnoException const& error) {
        Complain(TextOf(error));
    } catch (std::bad_alloc const&) {
        Complain("not enough memory");
    } catch (std::exception const& error) {
        Complain(error.what());
    }
    return static_cast<int>(result);
}

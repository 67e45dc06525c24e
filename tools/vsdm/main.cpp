// vsdm: the data mover. Runs a job's items through the plug-in into a backup stream.
#include "demo.h"
#include "jobspec.h"
#include "parallel.h"
#include "runner.h"
#include "split.h"

#include "vshost/home.h"

#include <CLI/CLI.hpp>

#include <unistd.h>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <streambuf>

namespace {

// Standard error of one stream of a parallel run: each line written whole and marked
// with the stream's number, so that the children's lines stay apart.
class PrefixedLines : public std::streambuf {
public:
    explicit PrefixedLines(std::string prefix) : m_prefix(std::move(prefix)) {}
    ~PrefixedLines() override {
        if (!m_line.empty()) Emit();
    }

protected:
    int_type overflow(int_type ch) override {
        if (traits_type::eq_int_type(ch, traits_type::eof())) return traits_type::not_eof(ch);
        m_line.push_back(traits_type::to_char_type(ch));
        if (ch == '\n') Emit();
        return ch;
    }

private:
    void Emit() {
        const std::string text = m_prefix + m_line;
        (void)!::write(STDERR_FILENO, text.data(), text.size());
        m_line.clear();
    }
    std::string m_prefix;
    std::string m_line;
};

// "--streams N": a whole number from 1 to kMaxStreams.
bool ParseStreams(const std::string& text, unsigned& n) {
    if (text.empty() || text.size() > 3 || text.find_first_not_of("0123456789") != std::string::npos) return false;
    n = static_cast<unsigned>(std::stoul(text));
    return n >= 1 && n <= vsdm::kMaxStreams;
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{
        "vsdm: the data mover. Exit status of run: 0 all items succeeded, 1 some items failed, "
        "2 the job could not start, 3 the stream could not be written, 4 stopped by a signal, "
        "64 bad command line or job file (a missing or unknown option, a field out of range, no stream "
        "target, a target that is one of the job's inputs, a home that does not exist, a resumed stream or "
        "--incremental-from job that is not this job's to build on); nothing is read or written then."};
    app.require_subcommand(1);

    std::string jobFile, out, home, streamsText = "1", shareText;
    long long incrementalFrom = 0;
    CLI::App* run = app.add_subcommand("run", "run the job that JOB.json describes");
    run->add_option("JOB", jobFile, "job file (docs/job-file.md)")->required();
    run->add_option("--out", out, "stream file, or - for standard output (overrides the job's \"out\")");
    run->add_option("--home", home, "host home (overrides the job's \"home\" and $VSHOST_HOME)");
    run->add_option("--incremental-from", incrementalFrom,
                    "read each disk against the change id that job JOBID recorded for it");
    run->add_option("--streams", streamsText,
                    "share the items among N processes, each writing its own stream; the output is then a "
                    "stream set (docs/parallel-streams.md)");
    // One process of a parallel run: "K:I,J,..." runs items I, J, ... as stream K.
    run->add_option("--share", shareText)->group("");

    std::string resume;
    run->add_option("--resume", resume,
                    "STREAM of a stopped attempt of this job: skip the disks it holds whole, go on inside the one it "
                    "was reading");

    std::string keep;
    CLI::App* demo = app.add_subcommand("demo", "back up a generated sample snapshot, restore it, compare");
    demo->add_option("--keep", keep, "build in this (new or empty) folder and leave it there");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        // Help is asked for and given; every other fault of the command line is a usage error.
        const int rc = app.exit(e);
        return rc == 0 ? 0 : vsdm::kExitUsage;
    }

    if (demo->parsed()) {
        try {
            return vsdm::RunDemo(keep, std::cout);
        } catch (const std::exception& e) {
            std::cerr << "vsdm demo: " << e.what() << "\n";
            return 1;
        }
    }

    unsigned streams = 1;
    if (!ParseStreams(streamsText, streams)) {
        std::cerr << "vsdm: --streams must be a whole number from 1 to " << vsdm::kMaxStreams << ", not \""
                  << streamsText << "\"\n";
        return vsdm::kExitUsage;
    }
    const bool child = !shareText.empty();
    std::unique_ptr<PrefixedLines> prefixed;
    std::unique_ptr<std::ostream> childErr;
    if (child) {
        prefixed = std::make_unique<PrefixedLines>("vsdm [stream " + shareText.substr(0, shareText.find(':')) + "]: ");
        childErr = std::make_unique<std::ostream>(prefixed.get());
    }
    std::ostream& err = child ? *childErr : std::cerr;

    vsdm::DataMoverJob job;
    vsdm::RunOptions options;
    try {
        job = vsdm::LoadJob(jobFile);
        if (!home.empty()) job.home = home;
        // A run uses a home; making one is for the tools that set homes up (vshost-passwd,
        // mksnap). A misspelt name must not become a new, empty home.
        const char* env = std::getenv("VSHOST_HOME");
        const std::string chosen = !job.home.empty() ? job.home : env ? env : "";
        std::error_code ec;
        if (!chosen.empty() && !std::filesystem::is_directory(chosen, ec))
            throw std::runtime_error("the host home " + chosen + " does not exist" +
                                     (job.home.empty() ? " (from $VSHOST_HOME)" : "") +
                                     ": give the folder of an existing home");
        if (!job.home.empty()) vshost::OpenHome(job.home);
        if (vshost::HomeDir().empty()) throw std::runtime_error("no host home: give --home, \"home\" or $VSHOST_HOME");
        if (!out.empty()) job.out = out;
        if (streams > 1 && job.out == "-")
            throw std::runtime_error("--streams " + streamsText +
                                     " writes one stream per process into files: it cannot go to standard output");
        if (streams > 1 && !resume.empty())
            throw std::runtime_error("--resume goes on from one stream: it cannot be combined with --streams " +
                                     streamsText);
        if (streams > 1 && job.out.empty())
            throw std::runtime_error("no stream target: give --out FILE (the stream set's name)");
        if (child) {
            const size_t colon = shareText.find(':');
            if (colon == std::string::npos) throw std::runtime_error("--share must be K:ITEMS");
            options.share = vsdm::ParseShare(shareText.substr(colon + 1), job.items.size());
        }
    } catch (const std::exception& e) {
        err << "vsdm: " << e.what() << "\n";
        return vsdm::kExitUsage;
    }

    if (streams > 1) {
        try {
            vsdm::StreamsOptions parallel;
            parallel.jobFile = jobFile;
            parallel.home = vshost::HomeDir();
            parallel.streams = streams;
            parallel.incrementalFrom = incrementalFrom;
            const vsdm::RunSummary summary = vsdm::RunStreams(job, parallel, std::cerr);
            vsdm::PrintSummary(job, summary, std::cerr);
            return summary.status;
        } catch (const vsdm::UsageError& e) {
            std::cerr << "vsdm: " << e.what() << "\n";
            return vsdm::kExitUsage;
        } catch (const std::exception& e) {
            std::cerr << "vsdm: " << e.what() << "\n";
            return vsdm::kExitJobFailed;
        }
    }

    options.out = out;
    options.jobFile = jobFile;
    options.incrementalFrom = incrementalFrom;
    options.resumeFrom = resume;
    options.progress = !child && isatty(STDERR_FILENO) != 0;
    try {
        const vsdm::RunSummary summary = vsdm::RunJob(job, options, err);
        if (child) {
            // The parent merges and prints; it counts a stream without a report as failed.
            const std::string text = vsdm::EncodeSummary(summary);
            (void)!::write(vsdm::kChildReportFd, text.data(), text.size());
            return summary.status;
        }
        vsdm::PrintSummary(job, summary, std::cerr);
        return summary.status;
    } catch (const vsdm::UsageError& e) {
        err << "vsdm: " << e.what() << "\n";
        return vsdm::kExitUsage;
    } catch (const std::exception& e) {
        err << "vsdm: " << e.what() << "\n";
        return vsdm::kExitJobFailed;
    }
}

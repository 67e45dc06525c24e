// vsdm: the data mover. Runs a job's items through the plug-in into a backup stream.
#include "demo.h"
#include "jobspec.h"
#include "runner.h"

#include "vshost/home.h"

#include <CLI/CLI.hpp>

#include <iostream>
#include <unistd.h>

int main(int argc, char** argv) {
    CLI::App app{"vsdm: the data mover. Exit status of run: 0 all items succeeded, 1 some items failed, "
                 "2 the job could not start, 3 the stream could not be written, 4 stopped by a signal, "
                 "64 bad command line or job file."};
    app.require_subcommand(1);

    std::string jobFile, out, home;
    long long incrementalFrom = 0;
    CLI::App* run = app.add_subcommand("run", "run the job that JOB.json describes");
    run->add_option("JOB", jobFile, "job file (docs/job-file.md)")->required();
    run->add_option("--out", out, "stream file, or - for standard output (overrides the job's \"out\")");
    run->add_option("--home", home, "host home (overrides the job's \"home\" and $VSHOST_HOME)");
    run->add_option("--incremental-from", incrementalFrom,
                    "read each disk against the change id that job JOBID recorded for it");

    std::string keep;
    std::string resume;
    run->add_option("--resume", resume,
                    "STREAM of a stopped attempt of this job: skip the disks it holds whole, go on inside the one it "
                    "was reading");

    CLI::App* demo = app.add_subcommand("demo", "back up a generated sample snapshot, restore it, compare");
    demo->add_option("--keep", keep, "build in this (new or empty) folder and leave it there");
    CLI11_PARSE(app, argc, argv);

    if (demo->parsed()) {
        try {
            return vsdm::RunDemo(keep, std::cout);
        } catch (const std::exception& e) {
            std::cerr << "vsdm demo: " << e.what() << "\n";
            return 1;
        }
    }

    vsdm::DataMoverJob job;
    try {
        job = vsdm::LoadJob(jobFile);
        if (!home.empty()) job.home = home;
        if (!job.home.empty()) vshost::OpenHome(job.home);
        if (vshost::HomeDir().empty()) throw std::runtime_error("no host home: give --home, \"home\" or $VSHOST_HOME");
    } catch (const std::exception& e) {
        std::cerr << "vsdm: " << e.what() << "\n";
        return vsdm::kExitUsage;
    }
    vsdm::RunOptions options;
    options.out = out;
    options.incrementalFrom = incrementalFrom;
    options.resumeFrom = resume;
    options.progress = isatty(STDERR_FILENO) != 0;
    try {
        const vsdm::RunSummary summary = vsdm::RunJob(job, options, std::cerr);
        if (!out.empty()) job.out = out;
        vsdm::PrintSummary(job, summary, std::cerr);
        return summary.status;
    } catch (const std::exception& e) {
        std::cerr << "vsdm: " << e.what() << "\n";
        return vsdm::kExitJobFailed;
    }
}

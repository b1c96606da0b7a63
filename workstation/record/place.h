// Where the service runs that records: this machine, or a device behind adb.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "workstation/command_line/process.h"

namespace qel::vexa::record {

class place {
public:
    // Behind adb when that is wanted, on the device with this serial number or, when it is empty, on the only
    // one. With dry_run, commands that change anything are printed and not run.
    place(bool behind_adb, std::string serial, bool dry_run);

    // As messages have it: "this machine", "the device".
    std::string name() const { return behind_adb_ ? "the device" : "this machine"; }

    // Runs a command line of the shell there. Of a dry run, only what just reads is run.
    enum class effect { reads, records };
    command_line::program_result shell(effect what, const std::string& line, const std::string& input = {},
                                       const std::function<void(const std::string&)>& meanwhile = {}) const;

    // The file there into which a trace for this file here is recorded.
    std::string file_there(const std::string& file_here) const;
    // Brings that file here and removes it there. Ends the process when it can't be had.
    void fetch(const std::string& file_here) const;
    // What a person types to do so.
    std::string fetch_lines(const std::string& file_here) const;
    // A command line as a person types it to have it run there.
    std::string shown(const std::string& line) const;

private:
    std::vector<std::string> command(const std::string& line) const;
    std::vector<std::string> adb(std::vector<std::string> words) const;

    const bool behind_adb_;
    const std::string serial_;
    const bool dry_run_;
};

}  // namespace qel::vexa::record

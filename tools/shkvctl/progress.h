// A progress bar on standard error, drawn only when that is a terminal.
#pragma once

#include <chrono>
#include <string>

#include "shkvctl/common.h"

class Progress
{
  public:
    // total 0: the end is not known, and only the count is shown.
    Progress(const Context &ctx, std::string what, uint64_t total);
    ~Progress()
    {
        finish();
    }
    Progress(const Progress &) = delete;

    void update(uint64_t done, const std::string &note = ""); // cheap: draws ten times a second
    void finish();                                            // takes the bar off the screen

  private:
    std::string what_;
    uint64_t total_;
    bool on_ = false, drawn_ = false;
    std::chrono::steady_clock::time_point start_, next_;
};

// Files that commands write.
#pragma once

#include <stdio.h>

#include <string>
#include <string_view>

bool is_stdout(const std::string &path);

// Standard output ("-"), or a file that gets its name when it is whole, behind symbolic links. What
// is there and no regular file, such as a FIFO or a device, is written as it is.
class OutputFile
{
  public:
    explicit OutputFile(const std::string &path); // throws Failure, as the rest does
    ~OutputFile();                                // without finish: a file that was there stays
    OutputFile(const OutputFile &) = delete;

    void write(std::string_view bytes);
    void let_all_read();
    void finish();

  private:
    std::string path_, place_, part_; // as given; the name to take and the one until then, or none
    FILE *file_;
};

void write_whole(const std::string &path, const std::string &text); // for all to read; throws Failure

#include "tools/play.h"

#include <regex>

std::string run(const std::string &line, int *exit_code)
{
    std::string command = line[0] == '!' ? line.substr(1) : "shkvctl " + line, output;
    FILE *pipe = popen(("exec 2>&1; PATH=" SHKV_TOOLS_DIR ":$PATH; " + command).c_str(), "r");
    char part[4096];
    for (size_t n; (n = fread(part, 1, sizeof part, pipe)) > 0;)
        output.append(part, n);
    int status = pclose(pipe);
    *exit_code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return output;
}

void go_on(const std::vector<Step> &steps)
{
    for (const Step &step : steps) {
        SCOPED_TRACE(step.line);
        int exit_code = 0;
        std::string output = run(step.line, &exit_code);
        EXPECT_EQ(exit_code, step.exit_code) << output;
        if (step.output[0] == '~')
            EXPECT_TRUE(std::regex_search(output, std::regex(step.output.substr(1)))) << output << "\nlacks " << step.output;
        else
            EXPECT_EQ(output, step.output);
    }
}

void play(const std::vector<Step> &steps)
{
    ASSERT_TRUE(remount_shm("256m"));
    go_on(steps);
}

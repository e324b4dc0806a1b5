// The progress bar of pmx's long operations, on standard error: drawn when standard error is a
// terminal (or when asked for), once the operation has run half a second, at most ten times a
// second; the line is ended when the operation ends.
#ifndef PMX_TOOL_PROGRESS_BAR_H
#define PMX_TOOL_PROGRESS_BAR_H

#include <chrono>
#include <cstddef>
#include <string>

namespace pmx_tool
{

class ProgressBar
{
  public:
    // what: the operation ("pmx gen: writing"); unit: what is counted ("records").
    // show: true draws even when standard error is no terminal, false never draws.
    enum class Show { Auto, Always, Never };
    ProgressBar(std::string what, std::string unit, size_t total, Show show = Show::Auto);
    ~ProgressBar() { finish(); }
    ProgressBar(const ProgressBar &) = delete;
    ProgressBar &operator=(const ProgressBar &) = delete;

    void set_total(size_t total) { total_ = total; }
    // done of the total so far, and a note after the count (the item under way).
    void update(size_t done, const std::string &note = {});
    // Ends the line when one was drawn; a message printed after it starts on a line of its own.
    void finish();

  private:
    using Clock = std::chrono::steady_clock;
    std::string what_, unit_;
    size_t total_;
    bool enabled_;
    bool drawn_ = false;
    Clock::time_point start_, last_{};
};

} // namespace pmx_tool

#endif // PMX_TOOL_PROGRESS_BAR_H

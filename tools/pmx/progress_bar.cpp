#include "progress_bar.h"

#include <unistd.h>

#include <cstdio>

namespace pmx_tool
{

ProgressBar::ProgressBar(std::string what, std::string unit, size_t total, Show show)
    : what_(std::move(what)), unit_(std::move(unit)), total_(total),
      enabled_(show == Show::Always || (show == Show::Auto && isatty(STDERR_FILENO) != 0)), start_(Clock::now())
{
}

void ProgressBar::update(size_t done, const std::string &note)
{
    if (!enabled_) return;
    const Clock::time_point now = Clock::now();
    if (!drawn_ && now - start_ < std::chrono::milliseconds(500)) return;
    if (drawn_ && done < total_ && now - last_ < std::chrono::milliseconds(100)) return;
    constexpr size_t kWidth = 30;
    const size_t filled = total_ == 0 ? kWidth : (done > total_ ? total_ : done) * kWidth / total_;
    std::fprintf(stderr, "\r%s [%s%s] %zu/%zu %s %-28.28s", what_.c_str(), std::string(filled, '#').c_str(),
                 std::string(kWidth - filled, '.').c_str(), done, total_, unit_.c_str(), note.c_str());
    std::fflush(stderr);
    drawn_ = true;
    last_ = now;
}

void ProgressBar::finish()
{
    if (drawn_) std::fputc('\n', stderr);
    drawn_ = false;
    enabled_ = false;
}

} // namespace pmx_tool

// Readiness waits: the unbounded waits for the line cards' completeness and for every card type's
// static attributes, polling the completeness records every 0.1 s.
#define LIBPMX_LOG_SOURCE "app/libpmx/libpmx_mom"
#include "libpmx_log.h"

#include <unistd.h>

#include "libpmx_mom.h"
#include "libpmx_port.h"
#include "libpmx_stats.hpp"

namespace
{

constexpr useconds_t kSleepUs = 100000;

} // namespace

extern "C" void libpmx_block_for_ndm_complete(void)
{
    PMX_INFO("begin block for complete type: %d", 1);
    pmx::stats::WaitClock clock(pmx::Record::DPLIB_COMPLETE);
    int n = 0;
    unsigned char complete = 0;
    do {
        if (libpmx_port_lc_is_complete()) break;
        ++n;
        complete = 0;
        libpmx_get_dplib_complete_status(1, &complete);
        PMX_INFO("will sleep %d", n);
        // The sleep is taken also on the pass that saw the flag turn 1.
        clock.waited();
        usleep(kSleepUs);
        PMX_INFO("did  sleep %d", n);
    } while (complete == 0);
    PMX_INFO("end   block for complete type: %d", 1);
}

extern "C" void libpmx_block_for_ndm_complete_stattr(void)
{
    PMX_INFO("begin block for ndm-complete-stattr");
    pmx::stats::WaitClock clock(pmx::Record::DM_STATTR_COMPLETE);
    int n = 0;
    unsigned char complete = 0;
    do {
        if (libpmx_port_lc_is_complete()) break;
        ++n;
        complete = 0;
        libpmx_get_dm_stattr_complete(&complete);
        PMX_INFO("will sleep %d", n);
        clock.waited();
        usleep(kSleepUs);
        PMX_INFO("did  sleep %d", n);
    } while (complete == 0);
    PMX_INFO("end   block for ndm-complete-stattr");
}

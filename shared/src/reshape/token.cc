// The token is taken before anything of a reshape is stored, and given back when the reshaper's
// handle closes. A reshaper that fails or dies in between leaves it set, and the store takes no
// other reshape: what it had prepared is not to be trusted.
//
// resh_sem is private to a process by its making, so the post of another process wakes nobody here:
// the wait looks again by itself. It is held for a few stores only; after two seconds its holder
// is dead.
#include "reshape/token.h"

#include <errno.h>
#include <time.h>

#include "diag/fail.h"
#include "diag/log.h"
#include "diag/trace.h"
#include "shkv_intf/word.h"

namespace {

constexpr uint32_t TOKENS = CF_RESH_TOKEN1 | CF_RESH_TOKEN2;
constexpr uint32_t REFILLS = CF_REFILL1 | CF_REFILL2;
constexpr long LOOK_NS = 10000000;
constexpr int LOOKS = 200;

// Under resh_sem. A rebuild may begin or a writer put its refill bit back at any moment: looked for and
// taken in one.
int take_bit(supernode *sn, uint32_t uuid, uint32_t *err_p)
{
    uint32_t bit = uuid == UUID_RESHAPE1 ? CF_RESH_TOKEN1 : uuid == UUID_RESHAPE2 ? CF_RESH_TOKEN2 : 0;
    if (!set32_unless(&sn->comm_flg, TOKENS | REFILLS, bit))
        return fail_err(ring_of(sn), 0x40, uuid, err_p, EINVAL, "uuid:%d,reshape token was taken:%x", uuid,
                        get32(&sn->comm_flg));
    if (!bit)
        return fail_err(ring_of(sn), 0x41, uuid, err_p, EINVAL, "uuid:%d,process is not allowed to reshape:", uuid);
    return 1;
}

} // namespace

int resh_sem_take(supernode *sn)
{
    for (int look = 0; look < LOOKS; look++) {
        timespec until;
        clock_gettime(CLOCK_REALTIME, &until);
        until.tv_nsec += LOOK_NS;
        until.tv_sec += until.tv_nsec / 1000000000;
        until.tv_nsec %= 1000000000;
        if (sem_timedwait(&sn->resh_sem, &until) == 0)
            return 0;
        if (errno != ETIMEDOUT && errno != EINTR)
            return -1;
    }
    errno = ETIMEDOUT;
    return -1;
}

int resh_sem_give(supernode *sn)
{
    return sem_post(&sn->resh_sem);
}

int token_take(supernode *sn, uint32_t uuid, uint32_t *err_p)
{
    if (resh_sem_take(sn) == -1)
        return fail_err(ring_of(sn), 0x3F, (uint32_t)errno, err_p, EFAULT,
                        "uuid:%d,db shkv semaphore wait failed,errno:%d", uuid, errno);
    int taken = take_bit(sn, uuid, err_p);
    if (resh_sem_give(sn) == -1 && taken)
        return fail_err(ring_of(sn), 0x42, (uint32_t)errno, err_p, EFAULT,
                        "uuid:%d,db shkv semaphore post failed,errno:%d", uuid, errno);
    return taken;
}

// All four bits, the rebuild's too. Intended.
void token_give(supernode *sn)
{
    if (resh_sem_take(sn) == -1) {
        fail(ring_of(sn), 0x84, (uint32_t)errno, 0, "the db shkv semaphore wait failed,errno:%d", errno);
        return;
    }
    change32(&sn->comm_flg, TOKENS | REFILLS, 0);
    if (resh_sem_give(sn) == -1)
        fail(ring_of(sn), 0x85, (uint32_t)errno, 0, "db shkv semaphore post failed,errno:%d", errno);
}

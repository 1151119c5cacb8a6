#include "peer.h"

const peer *const peers[] = {
#ifdef HAVE_SHKV
    &peer_shkv,
#endif
    &peer_probe_plain, &peer_probe_tuned, &peer_probe_fifo,
#ifdef HAVE_LMDB
    &peer_lmdb,
#endif
#ifdef HAVE_TDB
    &peer_tdb,         &peer_tdb_nolock,
#endif
#ifdef HAVE_BOOST
    &peer_boost,
#endif
#ifdef HAVE_TKRZW
    &peer_tkrzw_hash,  &peer_tkrzw_tiny,  &peer_tkrzw_cache,
#endif
#ifdef HAVE_KYOTO
    &peer_kyoto_hash,  &peer_kyoto_proto, &peer_kyoto_cache,
#endif
#ifdef HAVE_REDIS
    &peer_redis,
#endif
#ifdef HAVE_MEMCACHED
    &peer_memcached,
#endif
    nullptr,
};

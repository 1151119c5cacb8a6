// The head table. Slots are dealt round robin under hd_sem; operations read heads without it.
#include "shkv_intf/head.h"

#include <string.h>

#include "diag/log.h"
#include "shkv_intf/proc.h"
#include "shkv_intf/word.h"

shkv_head shkv_db_heads[HEADS];
uint16_t shkv_db_pos_gbl; // where the next search starts
head_priv head_privs[HEADS];

static int find_free_slot()
{
    for (int step = 0; step < HEADS; step++) {
        int slot = (shkv_db_pos_gbl + step) % HEADS;
        if (shkv_db_heads[slot].access_mode == 0)
            return slot;
    }
    return -1;
}

static const mdn no_bucket = {};
static const supernode no_store = {};
static constexpr quick_view one_empty_bucket()
{
    quick_view view = {};
    view.sn = &no_store;
    view.md_ver = 1; // against the 0 there
    view.md_base = &no_bucket;
    return view;
}
constinit const quick_view no_view = one_empty_bucket();

// access_mode goes in last: a slot without it is no open store.
static void fill_slot(int slot, const shkv_head *local_p)
{
    shkv_head *head = &shkv_db_heads[slot];
    shkv_head fresh = *local_p;
    fresh.iter_off = head->iter_off; // the cursor belongs to iterate, which resets it by itself
    fresh.iter_bkt = head->iter_bkt;
    fresh.iter_cnt = head->iter_cnt;
    fresh.access_mode = 0;
    fresh.open_tid = my_tid();
    head_privs[slot] = {};
    *head = fresh;
    put32(&head->access_mode, local_p->access_mode);
}

void forget_view(const shkv_head *head)
{
    int handle = handle_of(head);
    if (handle)
        __atomic_store_n(&head_privs[handle - 1].view_p, &no_view, __ATOMIC_SEQ_CST);
}

// When the position has wrapped this takes back slot 30 and not slot 31. Intended.
static void step_back()
{
    shkv_db_pos_gbl = shkv_db_pos_gbl ? shkv_db_pos_gbl - 1 : HEADS - 2;
    shkv_head *head = &shkv_db_heads[shkv_db_pos_gbl];
    put32(&head->access_mode, 0);
    forget_view(head);
}

int shkv_set_heads(const shkv_head *local_p)
{
    if (sem_take(&hd_sem) == -1)
        return -1;
    int slot = find_free_slot();
    if (slot < 0) {
        sem_give(&hd_sem);
        return 0;
    }
    fill_slot(slot, local_p);
    shkv_db_pos_gbl = (uint16_t)((slot + 1) % HEADS);
    if (sem_give(&hd_sem) == -1) {
        step_back();
        return -1;
    }
    return slot + 1;
}

// The tables' own parts of the head stay: their release is the caller's business.
void shkv_clear_head(int handle)
{
    if (sem_take(&hd_sem) == -1)
        return;
    if (handle >= 1 && handle <= HEADS) {
        shkv_head *head = &shkv_db_heads[handle - 1];
        put32(&head->access_mode, 0);
        forget_view(head);
        head->refill_pos = 0;
        head->sn = nullptr;
        head->open_tid = 0;
        head->map0_chunk = 0;
        head->map0_gap = 0;
        head->map0_sz = 0;
    }
    sem_give(&hd_sem);
}

shkv_head *check_shkv_hdl(int handle)
{
    if (handle < 1 || handle > HEADS) {
        LOG("bad handle, shkvh:%d", handle);
        return nullptr;
    }
    shkv_head *head = &shkv_db_heads[handle - 1];
    if (!head->sn || !head->access_mode) {
        LOG("db is not opened, shkvh:%d", handle);
        return nullptr;
    }
    return head;
}

// out holds max + 1 bytes.
void shkv_uri2dbname(const char *uri, char *out, uint32_t max)
{
    const char *colon_p = strchr(uri, ':');
    strncpy(out, colon_p ? colon_p + 1 : uri, max);
    out[max] = 0;
    for (char *at_p = out; (at_p = strchr(at_p, '/'));)
        *at_p = '_';
}

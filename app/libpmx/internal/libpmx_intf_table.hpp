// The interface table's structure and its change and lookup rules (internal header).
//
// Nodes hang in 64 chains by ifx and 64 by gphyid (key AND 63), appended at the tail; the chains
// decide which node answers (the first of a key in chain order: the older of two nodes with one
// gphyid), what the conflict logs say, and the order of the dumps. The indexed table keeps,
// beside the chains, a keyed table from each ifx and each gphyid to the first node of that key
// in chain order, and links the nodes of one key in a ring in the same order, so that both
// lookups cost O(1) whatever the chain lengths. IntfTable<false> is the chains alone: the
// reference that the differential test and the benchmarks hold the indexed table against.
//
// The indexed table also keeps the two answers of the hottest lookups, ifx -> gphyid and
// gphyid -> ifx of each key's first node, in maps that a reader may read without the lock
// (answer_phyid, answer_ifx; see SeqMap); they are empty while the index is off.
//
// Every other method needs the caller to hold the interface-table lock (reading for lookups
// and walks, writing for changes). The includer defines LIBPMX_LOG_SOURCE.
#ifndef LIBPMX_INTF_TABLE_HPP
#define LIBPMX_INTF_TABLE_HPP

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "libpmx_errno.h"
#include "libpmx_hash_table.hpp"
#include "libpmx_intf.h"
#include "libpmx_log.h"
#include "libpmx_seq_map.hpp"

namespace pmx
{

struct IntfNode {
    libpmx_list_t ifx_link; // in ifx chain (ifx AND 63)
    libpmx_list_t phy_link; // in gphyid chain (gphyid AND 63)
    libpmx_intf_info_t info;
    // The nodes of this node's ifx (and gphyid) in chain order, as a ring; the index holds the
    // first of each ring. Unused by the chains-only table.
    IntfNode *same_ifx_next, *same_ifx_prev;
    IntfNode *same_phy_next, *same_phy_prev;
};

inline IntfNode *node_of_ifx_link(libpmx_list_t *l)
{
    return static_cast<IntfNode *>(static_cast<void *>(reinterpret_cast<char *>(l) - offsetof(IntfNode, ifx_link)));
}

inline IntfNode *node_of_phy_link(libpmx_list_t *l)
{
    return static_cast<IntfNode *>(static_cast<void *>(reinterpret_cast<char *>(l) - offsetof(IntfNode, phy_link)));
}

// Index keys: a node is looked up by a probe node that carries only the key. Every probe of a
// bucket reads a node, so the index keeps its buckets at most half full.
struct NodeByIfx {
    using Rec = IntfNode;
    static constexpr uint32_t key_len = 4;
    static constexpr double max_load = 0.5;
    static const void *key_bytes(const void *n) { return &static_cast<const IntfNode *>(n)->info.ifx; }
    static uint32_t hash(const void *n) { return mix32(static_cast<const IntfNode *>(n)->info.ifx); }
    static bool key_equal(const Rec *c, const void *n) { return c->info.ifx == static_cast<const IntfNode *>(n)->info.ifx; }
};

struct NodeByPhyid {
    using Rec = IntfNode;
    static constexpr uint32_t key_len = 4;
    static constexpr double max_load = 0.5;
    static const void *key_bytes(const void *n) { return &static_cast<const IntfNode *>(n)->info.gphyid; }
    static uint32_t hash(const void *n) { return mix32(static_cast<const IntfNode *>(n)->info.gphyid); }
    static bool key_equal(const Rec *c, const void *n)
    {
        return c->info.gphyid == static_cast<const IntfNode *>(n)->info.gphyid;
    }
};

// One of the two lookups of the indexed table: the index from a key to the first node of its
// ring. Ring is the pair of ring links of that key.
template <class Traits, IntfNode *IntfNode::*Next, IntfNode *IntfNode::*Prev, class Alloc> class KeyIndex
{
public:
    bool init_once()
    {
        if (header_ == nullptr) header_ = KeyedTable<Traits, Alloc>::new_header();
        return header_ != nullptr;
    }
    // Forgets every key (the buckets are freed, the header stays).
    void reset()
    {
        if (header_ == nullptr) return;
        Alloc::release(header_->flags);
        Alloc::release(header_->keys);
        std::memset(header_, 0, sizeof *header_);
    }
    // Frees the index whole (a table that is going away).
    void release()
    {
        reset();
        Alloc::release(header_);
        header_ = nullptr;
    }
    IntfNode *first(const IntfNode *probe) const { return header_ == nullptr ? nullptr : table().find(probe); }
    // Appends n at the tail of its key's ring; false when the index could not grow.
    bool add(IntfNode *n)
    {
        IntfNode *head = first(n);
        if (head == nullptr) {
            n->*Next = n->*Prev = n;
            const uint32_t before = table().size();
            table().insert(n);
            return table().size() == before + 1;
        }
        n->*Prev = head->*Prev;
        n->*Next = head;
        (head->*Prev)->*Next = n;
        head->*Prev = n;
        return true;
    }
    // Takes n out of its key's ring; the next of the ring becomes the first when n was it.
    bool remove(IntfNode *n)
    {
        const bool was_first = first(n) == n;
        if (n->*Next == n) {
            if (was_first) table().remove(n);
            return true;
        }
        (n->*Prev)->*Next = n->*Next;
        (n->*Next)->*Prev = n->*Prev;
        if (!was_first) return true;
        table().remove(n);
        const uint32_t before = table().size();
        table().insert(n->*Next);
        return table().size() == before + 1;
    }

private:
    KeyedTable<Traits, Alloc> table() const { return KeyedTable<Traits, Alloc>(header_); }
    libpmx_hash_t *header_ = nullptr;
};

// Alloc: how the index and the answer maps get memory (tests substitute one that fails).
template <bool Indexed, class Alloc = MallocAlloc> class IntfTable
{
public:
    // Empty chains and, for the indexed table, empty indexes; false when those cannot be made.
    bool init()
    {
        if (count_ > 0) clear();
        for (int i = 0; i < LIBPMX_INTF_CHAINS; ++i) {
            list_init(&ifx_chains_[i]);
            list_init(&phy_chains_[i]);
        }
        count_ = 0;
        if constexpr (Indexed) {
            by_ifx_.reset();
            by_phy_.reset();
            clear_answers();
            set_indexing(by_ifx_.init_once() && by_phy_.init_once());
        }
        return !Indexed || indexing();
    }

    // Updates the node of info's ifx: 1, or 0 when no node has it (the conflict scan and its
    // logs happen either way).
    int update(const libpmx_intf_info_t *info)
    {
        for_each_with_phyid(info->gphyid, [&](const IntfNode *n) {
            if (n->info.ifx != info->ifx)
                PMX_LOG_AS("libpmx_update_intf_ifx_list", LIBPMX_ZLOG_ERROR, "conflict gphy 0x%x to old-ifx %u new-ifx %u",
                           info->gphyid, n->info.ifx, info->ifx);
        });
        IntfNode *node = find_ifx(info->ifx);
        if (node == nullptr) return 0;
        PMX_LOG_AS("libpmx_update_intf_ifx_list", LIBPMX_ZLOG_NOTICE, "update node ifx:%u phyid:0x%x to ifx:%u phyid:0x%x",
                   node->info.ifx, node->info.gphyid, info->ifx, info->gphyid);
        if (node->info.gphyid != info->gphyid)
            PMX_LOG_AS("libpmx_update_intf_ifx_list", LIBPMX_ZLOG_ERROR, "conflict ifx %u to old-gphy 0x%x new-gphy 0x%x",
                       info->ifx, node->info.gphyid, info->gphyid);
        unlink(node);
        node->info = *info;
        append(node);
        return 1;
    }

    // Appends a new node for info without looking for one of its ifx: 0, or -2.
    int alloc(const libpmx_intf_info_t *info)
    {
        auto *node = static_cast<IntfNode *>(std::calloc(1, sizeof(IntfNode)));
        if (node == nullptr) {
            PMX_LOG_AS("libpmx_alloc_intf_node", LIBPMX_ZLOG_ERROR, "NO MEMORY!!!");
            return LIBPMX_E_NOMEM;
        }
        node->info = *info;
        append(node);
        const libpmx_intf_info_t &i = node->info;
        PMX_LOG_AS("libpmx_alloc_intf_node", LIBPMX_ZLOG_NOTICE,
                   "ifx:%u, gphyid:0x%x, lphyid:0x%x, modid:%d, mport:%d, unit:%d, port:%d, dev: %d, slot: %d, sslot:%d, lport:%d, vid:%d, llcbtype:%d, is_valid:%d, core:%d",
                   i.ifx, i.gphyid, i.lphyid, i.modid, i.mport, i.unit, i.port, i.dev, i.slot, i.sslot, i.lport,
                   i.vid, i.llcbtype, i.is_valid, i.core);
        return LIBPMX_OK;
    }

    // Unlinks and frees the node of ifx: 0, or -7 when there is none.
    int del(uint32_t ifx)
    {
        IntfNode *node = find_ifx(ifx);
        PMX_LOG_AS("libpmx_del_intf_node", LIBPMX_ZLOG_INFO, "Find ifx:%u %s", ifx, node != nullptr ? "success" : "false");
        if (node == nullptr) return LIBPMX_E_NOT_FOUND;
        unlink(node);
        std::free(node);
        return LIBPMX_OK;
    }

    // The first node of ifx (of gphyid) in chain order, or null.
    const IntfNode *by_ifx(uint32_t ifx) const { return find_ifx(ifx); }
    const IntfNode *by_phyid(uint32_t phyid) const
    {
        if (Indexed && indexing()) {
            const Probe p(0, phyid);
            return by_phy_.first(&p.node);
        }
        const IntfNode *hit = nullptr;
        for_each_in_chain_of_phyid(phyid, [&](const IntfNode *n) {
            if (hit == nullptr && n->info.gphyid == phyid) hit = n;
        });
        return hit;
    }

    // The gphyid of ifx's first node (the ifx of gphyid's first node), read without the lock:
    // the caller validates the answer against the lock's write count. Unknown while the index is
    // off (the chains answer then) and for key 0, which the maps do not hold.
    enum class Answer { Found, Absent, Unknown };
    Answer answer_phyid(uint32_t ifx, uint32_t *gphyid) const { return answer(phy_of_ifx_, ifx, gphyid); }
    Answer answer_ifx(uint32_t gphyid, uint32_t *ifx) const { return answer(ifx_of_phy_, gphyid, ifx); }

    // Every node, chain by chain (0 to 63) and head to tail: the order of the dumps.
    template <class F> void for_each_in_ifx_order(F f) const
    {
        for (const auto &head : ifx_chains_)
            for (libpmx_list_t *l = head.next; l != &head; l = l->next) f(static_cast<const IntfNode *>(node_of_ifx_link(l)));
    }
    template <class F> void for_each_in_phy_order(F f) const
    {
        for (const auto &head : phy_chains_)
            for (libpmx_list_t *l = head.next; l != &head; l = l->next) f(static_cast<const IntfNode *>(node_of_phy_link(l)));
    }

    // Turns the index off (the chains answer) or builds it again from the chains; false when it
    // cannot be built (no memory), and the chains keep answering.
    bool set_indexed(bool on)
    {
        if constexpr (!Indexed) return !on;
        if (!on || indexing()) {
            set_indexing(indexing() && on);
            if (!indexing()) clear_answers();
            return true;
        }
        by_ifx_.reset();
        by_phy_.reset();
        if (!(by_ifx_.init_once() && by_phy_.init_once())) return false;
        bool ok = true;
        // Chain by chain, head to tail: each key's ring gets its nodes in chain order.
        for (auto &head : ifx_chains_)
            for (libpmx_list_t *l = head.next; ok && l != &head; l = l->next) ok = by_ifx_.add(node_of_ifx_link(l));
        for (auto &head : phy_chains_)
            for (libpmx_list_t *l = head.next; ok && l != &head; l = l->next) ok = by_phy_.add(node_of_phy_link(l));
        set_indexing(ok);
        for (auto &head : ifx_chains_)
            for (libpmx_list_t *l = head.next; indexing() && l != &head; l = l->next) refresh_answers(node_of_ifx_link(l));
        return indexing();
    }

    uint32_t size() const { return count_; }
    bool indexed() const { return Indexed && indexing(); }

    // Frees the nodes and the index: for a table that goes away (the library's own lives as long
    // as the process, so that no thread at exit meets a freed table).
    void release()
    {
        clear();
        if constexpr (Indexed) {
            by_ifx_.release();
            by_phy_.release();
            phy_of_ifx_.release();
            ifx_of_phy_.release();
        }
        set_indexing(false);
    }

    // Frees every node and starts empty again (tests, benchmarks).
    void clear()
    {
        for (auto &head : ifx_chains_)
            while (head.next != &head) {
                IntfNode *n = node_of_ifx_link(head.next);
                unlink(n);
                std::free(n);
            }
    }

private:
    static void list_init(libpmx_list_t *h) { h->next = h->prev = h; }
    static void list_append(libpmx_list_t *head, libpmx_list_t *l)
    {
        l->prev = head->prev;
        l->next = head;
        head->prev->next = l;
        head->prev = l;
    }
    static void list_del(libpmx_list_t *l)
    {
        l->prev->next = l->next;
        l->next->prev = l->prev;
        l->next = l->prev = l;
    }
    // A node that carries only the key an index looks up.
    struct Probe {
        IntfNode node;
        Probe(uint32_t ifx, uint32_t gphyid) { node.info.ifx = ifx, node.info.gphyid = gphyid; }
    };

    IntfNode *find_ifx(uint32_t ifx) const
    {
        if (Indexed && indexing()) {
            const Probe p(ifx, 0);
            return by_ifx_.first(&p.node);
        }
        const libpmx_list_t &head = ifx_chains_[ifx & (LIBPMX_INTF_CHAINS - 1)];
        for (libpmx_list_t *l = head.next; l != &head; l = l->next)
            if (node_of_ifx_link(l)->info.ifx == ifx) return node_of_ifx_link(l);
        return nullptr;
    }

    template <class F> void for_each_in_chain_of_phyid(uint32_t phyid, F f) const
    {
        const libpmx_list_t &head = phy_chains_[phyid & (LIBPMX_INTF_CHAINS - 1)];
        for (libpmx_list_t *l = head.next; l != &head; l = l->next) f(static_cast<const IntfNode *>(node_of_phy_link(l)));
    }
    // The nodes whose gphyid is phyid, in chain order.
    template <class F> void for_each_with_phyid(uint32_t phyid, F f) const
    {
        if (Indexed && indexing()) {
            const Probe p(0, phyid);
            const IntfNode *first = by_phy_.first(&p.node);
            if (first == nullptr) return;
            const IntfNode *n = first;
            do {
                f(n);
                n = n->same_phy_next;
            } while (n != first);
            return;
        }
        for_each_in_chain_of_phyid(phyid, [&](const IntfNode *n) {
            if (n->info.gphyid == phyid) f(n);
        });
    }

    void append(IntfNode *n)
    {
        list_append(&ifx_chains_[n->info.ifx & (LIBPMX_INTF_CHAINS - 1)], &n->ifx_link);
        list_append(&phy_chains_[n->info.gphyid & (LIBPMX_INTF_CHAINS - 1)], &n->phy_link);
        ++count_;
        if constexpr (Indexed) {
            if (indexing() && !(by_ifx_.add(n) && by_phy_.add(n))) drop_index();
            if (indexing()) refresh_answers(n);
        }
    }
    void unlink(IntfNode *n)
    {
        list_del(&n->ifx_link);
        list_del(&n->phy_link);
        --count_;
        if constexpr (Indexed) {
            if (indexing() && !(by_ifx_.remove(n) && by_phy_.remove(n))) drop_index();
            if (indexing()) refresh_answers(n);
        }
    }
    Answer answer(const SeqMap<Alloc> &m, uint32_t key, uint32_t *value) const
    {
        if (key == 0 || !indexed_.load(std::memory_order_acquire)) return Answer::Unknown;
        return m.find(key, value) ? Answer::Found : Answer::Absent;
    }
    // Under the lock; the readers without it load the flag with acquire (answer()).
    bool indexing() const { return indexed_.load(std::memory_order_relaxed); }
    void set_indexing(bool on) { indexed_.store(on, std::memory_order_release); }
    // After n joined or left: the answers of its ifx and its gphyid, from their first nodes now.
    void refresh_answers(const IntfNode *n)
    {
        const uint32_t ifx = n->info.ifx, gphyid = n->info.gphyid;
        const IntfNode *first_ifx = find_ifx(ifx);
        const IntfNode *first_phy = by_phyid(gphyid);
        bool ok = true;
        if (first_ifx != nullptr)
            ok = phy_of_ifx_.set(ifx, first_ifx->info.gphyid);
        else
            phy_of_ifx_.erase(ifx);
        if (first_phy != nullptr)
            ok = ifx_of_phy_.set(gphyid, first_phy->info.ifx) && ok;
        else
            ifx_of_phy_.erase(gphyid);
        if (!ok) drop_index();
    }
    void clear_answers()
    {
        phy_of_ifx_.clear();
        ifx_of_phy_.clear();
    }
    // An index that could not grow no longer holds every key: the chains answer from then on.
    void drop_index()
    {
        set_indexing(false);
        clear_answers();
        PMX_LOG_AS("libpmx_intf_index", LIBPMX_ZLOG_ERROR, "NO MEMORY!!! interface index dropped at %u nodes, the chains answer",
                   count_);
    }

    libpmx_list_t ifx_chains_[LIBPMX_INTF_CHAINS] = {};
    libpmx_list_t phy_chains_[LIBPMX_INTF_CHAINS] = {};
    uint32_t count_ = 0;
    std::atomic<bool> indexed_{false}; // also read by the readers without the lock
    KeyIndex<NodeByIfx, &IntfNode::same_ifx_next, &IntfNode::same_ifx_prev, Alloc> by_ifx_;
    KeyIndex<NodeByPhyid, &IntfNode::same_phy_next, &IntfNode::same_phy_prev, Alloc> by_phy_;
    SeqMap<Alloc> phy_of_ifx_, ifx_of_phy_;
};

} // namespace pmx

#endif // LIBPMX_INTF_TABLE_HPP

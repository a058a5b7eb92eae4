// order.cpp - the order in which locks are taken: spin locks, leaves under them, mutexes.
//
// For each lock it is kept which others were taken while it was held. Two that were ever taken in both orders
// can lock each other out, whether or not it happens in this run. A lock's memory that goes is forgotten.
#include "core.h"

#include <algorithm>

static bool Leads(const void* pFrom, const void* pTo, unsigned uDepth)
{
    auto it = g->Orders.After.find(pFrom);
    if (it == g->Orders.After.end() || uDepth == 0) {
        return false;
    }
    for (const void* pNext : it->second) {
        if (pNext == pTo || Leads(pNext, pTo, uDepth - 1)) {
            return true;
        }
    }
    return false;
}

static void NoteLock(const void* p)
{
    auto& all = g->Orders.Locks;
    auto place = std::lower_bound(all.begin(), all.end(), p);
    if (place == all.end() || *place != p) {
        all.insert(place, p);
        g->Orders.PageHasLocks[reinterpret_cast<size_t>(p) / PAGE_SIZE % LOCK_PAGES] = true;
    }
}

static void NoteOne(const void* pHeld, const void* pTaken)
{
    if (pHeld == pTaken || !g->Orders.After[pHeld].insert(pTaken).second) {
        return;
    }
    NoteLock(pHeld);
    NoteLock(pTaken);
    if (Leads(pTaken, pHeld, 16)) {
        HostBug("LOCK_ORDER", "lock %p is taken under %p; before, it was the other way round", pTaken, pHeld);
    }
}

// The thread takes a lock, or waits for a mutex.
// Lock: held.
void HostNoteOrder(PKTHREAD pSelf, const void* pTaken)
{
    for (unsigned i = 0; i < pSelf->uHeld; i++) {
        NoteOne(pSelf->Held[i], pTaken);
    }
    for (const void* pMutex : pSelf->Mutexes) {
        NoteOne(pMutex, pTaken);
    }
}

// Lock: held.
void HostForgetLocks(const void* p, size_t bytes)
{
    const void* pEnd = static_cast<const UCHAR*>(p) + bytes;
    auto& all = g->Orders.Locks;
    auto first = std::lower_bound(all.begin(), all.end(), p);
    if (first == all.end() || *first >= pEnd) {
        return;
    }
    all.erase(first, std::lower_bound(first, all.end(), pEnd));
    g->Orders.After.erase(g->Orders.After.lower_bound(p), g->Orders.After.lower_bound(pEnd));
    for (auto& order : g->Orders.After) {
        order.second.erase(order.second.lower_bound(p), order.second.lower_bound(pEnd));
    }
}

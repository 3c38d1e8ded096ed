// os_cosmem_untracked.cpp: blocks for which the full table has no slot.
#include "os_cosmem_impl.h"

#include "plat_memory.h"

OsMemUntracked::~OsMemUntracked()
{
    for (Node* pnode : m_apnodeBucket)
    {
        while (pnode)
        {
            Node* const pnodeNext = pnode->pnodeNext;
            Free(pnode);
            pnode = pnodeNext;
        }
    }
}

OsMemUntracked::Node* OsMemUntracked::Make(const OsMemRecord& a_osmemrecord)
{
    auto* const pnode = static_cast<Node*>(PlatMemoryHeapAlloc(sizeof(Node)));
    if (pnode)
        pnode->osmemrecord = a_osmemrecord;
    return pnode;
}

void OsMemUntracked::Free(Node* a_pnode)
{
    PlatMemoryHeapFree(a_pnode);
}

// The upper bits of the product depend on all bits of the address.
size_t OsMemUntracked::BucketOf(const void* a_pvBlock)
{
    static_assert(m_sizetBuckets == 256);
    return static_cast<size_t>(std::bit_cast<uint64_t>(a_pvBlock) * 0x9E3779B97F4A7C15u >> 56);
}

void OsMemUntracked::Add(Node* a_pnode)
{
    Node** const ppnode = &m_apnodeBucket[BucketOf(a_pnode->osmemrecord.pvAddress)];
    a_pnode->pnodeNext = *ppnode;
    *ppnode = a_pnode;
}

OsMemUntracked::Node* OsMemUntracked::Find(const void* a_pvBlock) const
{
    Node* pnode = m_apnodeBucket[BucketOf(a_pvBlock)];
    while (pnode && pnode->osmemrecord.pvAddress != a_pvBlock)
        pnode = pnode->pnodeNext;
    return pnode;
}

OsMemUntracked::Node* OsMemUntracked::Remove(const void* a_pvBlock)
{
    Node** ppnode = &m_apnodeBucket[BucketOf(a_pvBlock)];
    while (*ppnode && (*ppnode)->osmemrecord.pvAddress != a_pvBlock)
        ppnode = &(*ppnode)->pnodeNext;
    Node* const pnode = *ppnode;
    if (pnode)
        *ppnode = pnode->pnodeNext;
    return pnode;
}

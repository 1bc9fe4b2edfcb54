// The owner table: every entry's user and group ids counted in idTree, each
// id with the name the user database gives it.
#pragma once

#include <cstddef>
#include <cstdint>

struct TreeHeader;

extern TreeHeader* idTree;  ///< owner and group ids (IdTableOpen)

/// One id in the table (from an arena, never freed); the name follows in the same block.
struct IdRecord {
    uint32_t id;        ///< the user or group id
    uint32_t idKind;    ///< 1 = user, 2 = group; stored records always carry 1
    uint32_t useCount;  ///< lookups that found the record, plus the one that created it
    char* userName;     ///< the name from the user database, or "<unknown>"
};
static_assert(sizeof(IdRecord) == 24);
static_assert(offsetof(IdRecord, id) == 0);
static_assert(offsetof(IdRecord, idKind) == 4);
static_assert(offsetof(IdRecord, useCount) == 8);
static_assert(offsetof(IdRecord, userName) == 16);

constexpr uint32_t ID_USER = 1;   ///< idKind of a user id
constexpr uint32_t ID_GROUP = 2;  ///< idKind of a group id

/// A fresh owner tree: 8-byte keys holding IdRecord addresses, ordered by
/// IdKeyCmp, in temporary page files. Exits 1 when they cannot be created.
TreeHeader* PlantIdTree();
/// Plants idTree for the run.
void IdTableOpen();
/// Frees idTree and its page files.
void IdTableFree();

/// Counts one use of id in idTree. A user lookup that finds its key adds a
/// use; an id not in the tree is named from the user database (for groups
/// too) and added as a record of kind 1. A group lookup never finds a record,
/// and when one of that number exists nothing changes: the record the tree
/// would refuse is not made. Only the first lookup of an id, and the first
/// after the tree takes a key, searches the tree.
void CheckIdTree(uint32_t id, uint32_t kind);

/// idTree's comparison. Each key is 8 bytes holding the address of an
/// IdRecord (or a probe with the same first two fields); the lengths are
/// ignored. Kinds compare first, then ids, each as the 32-bit wrapped
/// difference, so ids more than 2^31 apart sort in reverse.
int32_t IdKeyCmp(const void* keyA, uint32_t lengthA, const void* keyB, uint32_t lengthB);

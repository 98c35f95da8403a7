#pragma once

// The ten table types, in one list from which everything per type is generated: the
// record aliases and traits (types/TableTypes.h), the shard types (types/TableShards.h)
// and the catalogue of names and ids (VeskTapAgg/Catalogue.h). Adding a table type is one
// line here plus, for an entry table, its key's field table in types/EntryKeys.h; its
// records, type records, shards, tables, Python classes and CLI views follow.
//
// X(Name, lowerName, role, swTableId, transientAddEntry salt, transientRemoveEntry salt,
//   transientVersionForKey salt, tableEntries salt, the entry log's tableConfigShard salt)
//
// role is Action (keyed by line index, entry = action) or Entry (keyed by the TCAM line).
// Ids are numbered 1, 2, 4 to 11 in the names' alphabetical order; 3 is not assigned.
#define VESK_TAPAGG_TABLES(X)                                                                      \
  X(DefaultFwdTcamAction, defaultFwdTcamAction, Action, 0x1c080401u, 0x6a09e667u, 0xbb67ae85u,     \
    0x3c6ef372u, 0xa54ff53au, 0x76f988dau)                                                         \
  X(DefaultFwdTcamEntry, defaultFwdTcamEntry, Entry, 0x1c080402u, 0x510e527fu, 0x9b05688cu,        \
    0x1f83d9abu, 0x2cbc41fdu, 0x983e5152u)                                                         \
  X(ServicePolicyMacTcamAction, servicePolicyMacTcamAction, Action, 0x1c080404u, 0x5be0cd19u,      \
    0xcbbb9d5du, 0x629a292au, 0x9159015au, 0xa831c66du)                                            \
  X(ServicePolicyMacTcamEntry, servicePolicyMacTcamEntry, Entry, 0x1c080405u, 0x152fecd8u,         \
    0x67332667u, 0x8eb44a87u, 0xdb0c2e0du, 0xb00327c8u)                                            \
  X(ServicePolicyV4TcamAction, servicePolicyV4TcamAction, Action, 0x1c080406u, 0x47b5481du,        \
    0x428a2f98u, 0x71374491u, 0xb5c0fbcfu, 0xbf597fc7u)                                            \
  X(ServicePolicyV4TcamEntry, servicePolicyV4TcamEntry, Entry, 0x1c080407u, 0xe9b5dba5u,           \
    0x3956c25bu, 0x59f111f1u, 0x923f82a4u, 0xc6e00bf3u)                                            \
  X(ServicePolicyV6TcamAction, servicePolicyV6TcamAction, Action, 0x1c080408u, 0xab1c5ed5u,        \
    0xd807aa98u, 0x12835b01u, 0x243185beu, 0xd5a79147u)                                            \
  X(ServicePolicyV6TcamEntry, servicePolicyV6TcamEntry, Entry, 0x1c080409u, 0x550c7dc3u,           \
    0x72be5d74u, 0x80deb1feu, 0x9bdc06a7u, 0x06ca6351u)                                            \
  X(TapTunnelTerminationTcamAction, tapTunnelTerminationTcamAction, Action, 0x1c08040au,           \
    0xc19bf174u, 0xe49b69c1u, 0xefbe4786u, 0x0fc19dc6u, 0x14292967u)                               \
  X(TapTunnelTerminationTcamEntry, tapTunnelTerminationTcamEntry, Entry, 0x1c08040bu, 0x240ca1ccu, \
    0x2de92c6fu, 0x4a7484aau, 0x5cb0a9dcu, 0x27b70a85u)

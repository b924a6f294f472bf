// ZorvSharedMapVfs: an SQLite VFS over the platform's default one that lets
// every read connection of the process map a store file through one shared
// mapping instead of one each.
//
// Why: the lookups read the store through its memory mapping, which makes a
// lookup less than half as dear as copying pages into each connection's cache.
// But each connection of the default VFS maps the file on its own, so a page
// two connections have read is resident twice in the process's accounting: a
// million-item store read by two threads counted some 250 MB, against 125 MB
// read once. Through this VFS the pages are mapped once whatever the number of
// connections.
//
// Everything but the mapping is the default VFS's own: each connection keeps
// its own file, locks and log index. A mapping is made by one more file of
// the default VFS, opened only to be mapped, and covers the file at one size.
// When a connection learns that the file may have changed size (SQLite tells
// it, as it tells the default VFS to map again) and holds no page, it moves to
// the mapping of the file's size now, made if nobody has; a mapping nobody
// reads from any more is unmapped. As with the default VFS, a page outside
// the mapping is read with xRead instead.
//
// Thread-safe: connections on one file may be used from different threads at
// once (each connection by one thread at a time, as SQLite requires). A page
// is handed out and given back without a lock or any write other threads
// see: each connection counts its own; the lock is taken only to move.
#pragma once

namespace zorv {

// The VFS's name for sqlite3_open_v2, registered (not as the default) on the
// first call; null when it could not be, and the caller opens with the
// default VFS.
const char* SharedMapVfsName();

}  // namespace zorv

//  Simulates power failures: records the writes of a program in one folder, and computes the contents that the folder
//  may have after a power failure.
//
//  The recording includes all calls of the process, also those of SQLite, on files in the folder: creating, renaming
//  and removing a file, writing bytes, setting a size, flushing a file or the folder. The index of a write-ahead log
//  (-shm) is not recorded, because SQLite creates it again after a power failure.
//
//  The power may fail after any call. Everything flushed before is on the disk. Of the other calls, the disk has all,
//  none, all except one, or only one. It may also have all changes of names, and none or only one of the changes of
//  data.
//
//  Threads: recording is for one thread.
#ifndef TESTS_UNIT_OPEN_RECORDED_DISK_H
#define TESTS_UNIT_OPEN_RECORDED_DISK_H

#include <functional>
#include <map>
#include <set>
#include <string>

namespace opentest {

//  The names and contents of the files in a folder.
using FolderContent = std::map<std::string, std::string>;

//  Starts recording. The files that are in the folder at this time count as flushed.
void startRecording(const std::string& folder);

void stopRecording();

//  Return the contents that the folder may have after a power failure: cutsAtAnyMoment for a failure at any moment of
//  the recording, cutsAtTheEnd for a failure after the last call.
std::set<FolderContent> cutsAtAnyMoment();
std::set<FolderContent> cutsAtTheEnd();

//  flushCount returns the number of calls of fsync and fdatasync, including calls that failed. `action` is called
//  before each flush, with the descriptor. If `action` returns an errno value other than 0, the flush fails with that
//  error.
int flushCount();
void setBeforeFlush(std::function<int(int)> action);

}  // namespace opentest

#endif

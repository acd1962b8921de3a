//  Power failures: records the writes of a program in one folder, and computes the possible contents after a power
//  failure.
//
//  Recorded are the calls of the whole process, including SQLite, on files in the folder: creating, renaming and
//  removing a file, writing bytes, setting a size, flushing a file or the folder. The index of a log (-shm) is not
//  recorded, because it is created again after a power failure.
//
//  The power may fail after any call. Data flushed before is on the disk. Of the other calls, the disk has all, none,
//  all except one, or only one; of the names, all changes or only the flushed ones.
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

//  Starts recording. The files in folder count as flushed.
void startRecording(const std::string& folder);

void stopRecording();

//  Returns the possible contents of the folder after a power failure at any moment of the recording or after its last
//  call.
std::set<FolderContent> cutsAtAnyMoment();
std::set<FolderContent> cutsAtTheEnd();

//  Returns the number of calls that flushed a file or a folder; and a function that is called before each with its
//  descriptor. If it returns an errno value other than 0, the call fails with it.
int flushCount();
void setBeforeFlush(std::function<int(int)> action);

}  // namespace opentest

#endif

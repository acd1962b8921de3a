//  Power cuts: records what a program writes into one folder, and makes the folders that a cut could leave.
//
//  What is recorded are the calls of the whole process, SQLite's included, on files in the folder: a file made, renamed
//  or removed, bytes written, a size set, a file or the folder flushed. The index of a log (-shm) is left out: it is made
//  again after a cut.
//
//  A cut comes after any call. What was flushed by then is on the disk. Of the rest there is everything, nothing, all but
//  one call, or one call only; of the names everything or what was flushed.
//
//  Threads: recording is for one thread.
#ifndef TESTS_UNIT_OPEN_RECORDED_DISK_H
#define TESTS_UNIT_OPEN_RECORDED_DISK_H

#include <functional>
#include <map>
#include <set>
#include <string>

namespace opentest {

//  Names and contents of a folder.
using FolderContent = std::map<std::string, std::string>;

//  Begins with the files that are in folder, which count as flushed.
void startRecording(const std::string& folder);

void stopRecording();

//  The folders that a cut could leave, at any moment of the recording or after its last call.
std::set<FolderContent> cutsAtAnyMoment();
std::set<FolderContent> cutsAtTheEnd();

//  How many calls flushed a file or a folder, and what is called before each with its descriptor. The call fails with the
//  errno value that it returns, if that is not 0.
int flushCount();
void setBeforeFlush(std::function<int(int)> action);

}  // namespace opentest

#endif

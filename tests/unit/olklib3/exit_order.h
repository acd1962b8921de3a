//  A program that logs its start and its exit. It writes one line for each mapping, unmapping and call of mallopt, and
//  for each construction and destruction of a keeper.
#ifndef EXIT_ORDER_H
#define EXIT_ORDER_H

#include "olk_alloctor"

//  Writes one line to standard output, without a buffer.
void write_line(const char* what, unsigned long long first, unsigned long long second);
void write_line(const char* what);

//  A global object, or a static object of main, that holds pooled memory until it is destroyed.
class keeper {
public:
    explicit keeper(const char* name);
    ~keeper();
    keeper(const keeper&) = delete;
    keeper& operator=(const keeper&) = delete;

private:
    const char* name_;
    olk::string text_;
    void* small_;
    void* large_;
};

#endif

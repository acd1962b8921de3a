#  Tests of the string, the word reader, the JSON writers, the log interface and the console log.

addrpubd_unit_test(olk_string_test
    SOURCES
        mapping_spy.cpp
        olk_string_test.cpp
        olk_string_growth_test.cpp
        olk_string_failure_test.cpp
        olk_string_model_test.cpp
        olk_string_spare_test.cpp
        olk_read_until_test.cpp
    APART olk_words_test.cpp
    LIBS olklib3
    WRAP mmap munmap sysconf
        pthread_spin_init pthread_spin_destroy pthread_spin_lock pthread_spin_unlock)

addrpubd_unit_test(olk_json_test ONE_THREAD
    SOURCES olk_json_test.cpp olk_json_reserved_test.cpp
    LIBS olklib3
    WRAP snprintf)

addrpubd_unit_test(olk_json_time_test ONE_THREAD
    SOURCES olk_json_time_test.cpp
    LIBS olklib3
    WRAP localtime_r)

find_package(nlohmann_json 3.10 QUIET)
if(nlohmann_json_FOUND)
    addrpubd_unit_test(olk_json_oracle_test ONE_THREAD
        SOURCES olk_json_oracle_test.cpp
        LIBS olklib3)
else()
    message(STATUS "olk_json_oracle_test is not built: nlohmann-json3-dev is not installed")
endif()

#  olk_log.cpp has a branch for a number that does not fit its buffer. Every int fits, so the compiler removes the
#  branch. This build of olk_log.cpp calls a replacement of snprintf, so that the test can execute the branch.
addrpubd_unit_test(olk_log_test ONE_THREAD
    SOURCES olk_log_test.cpp ${PROJECT_SOURCE_DIR}/com/olklib3/olk_log.cpp
    LIBS olklib3
    WRAP snprintf)
set_source_files_properties(${PROJECT_SOURCE_DIR}/com/olklib3/olk_log.cpp PROPERTIES
    COMPILE_OPTIONS -fno-builtin-snprintf
    SKIP_PRECOMPILE_HEADERS ON)  # Otherwise g++ uses the snprintf of the precompiled headers.

addrpubd_unit_test(olk_prtlog_test ONE_THREAD
    SOURCES olk_prtlog_test.cpp
    LIBS olklib3
    WRAP gettimeofday localtime_r)

#  Read by ctest: sets the labels of the tests of a GoogleTest program. The variable `program` is its name.
#
#  Every test has the label unit. A test of a program open_dns* or open_redis* also has the label dns or redis.
#  The other labels are subjects. Each subject is a list of patterns of test names (SUITE.NAME); tests in Python have
#  the same subjects as marks of pytest.

set(refusal "^(RedisRefusals?|TsigAnswer)[.]"
    "^(Open)?DnsBackend[.].*(Refus|NotAuth)" "^(Redis|Sqlite)Backend[.].*Refus" "^HostileDnsServer[.].*BadKey"
    "^OpenTcpStream[.].*Refused" "^(WorkerTagQuery|WorkerDesiredState|WorkerRepetition|DesiredState)[.].*Refus"
    "^Worker_[.]AMissingTag" "^Addresses[.].*WrongServer")
set(retry "^(Backoff|WorkerCheck)[.]"
    "^(Open)?DnsBackend[.].*Again" "^SqliteBackend[.].*Lost" "^HostsBackendAlone[.].*Retry"
    "^SqliteCreation[.].*(Retry|Again)" "^Each/SqliteForeignChange[.].*Again"
    "^(WorkerTagQuery|WorkerDesiredState|WorkerRepetition|DesiredState|Worker_)[.].*(Again|Repeat|Retr|BackOff)"
    "^PublishCycle[.].*Retried")
set(failover "^Addresses[.]" "^RedisRefusals[.].*(AnotherAddress|Replica)" "^RedisList[.]"
    "^Redis(Cluster|Sentinel)[.].*(Replaced|Followed|Moved|FailOver|AnyOfItsNodes)")
set(not_of_a_server "Malformed|NotAKeyName")  # the client library itself refuses these urls and users

set(labels unit)
foreach(server dns redis)
    if(program MATCHES "^open_${server}")
        list(APPEND labels ${server})
    endif()
endforeach()
foreach(test IN LISTS ${program}_TESTS)
    set(of_test ${labels})
    foreach(subject refusal retry failover)
        list(JOIN ${subject} "|" pattern)
        if(test MATCHES "${pattern}" AND NOT test MATCHES "${not_of_a_server}")
            list(APPEND of_test ${subject})
        endif()
    endforeach()
    set_tests_properties("${test}" PROPERTIES LABELS "${of_test}")
endforeach()

//  The answer of a provider to an update request. By the protocol dyndns2, the body of the answer begins with one of
//  the words in answer.cpp, for example in "good 2001:db8::1", "nochg" or "badauth". The protocol has no standard; the
//  words are from the documents of providers.
#ifndef RDBAPI_OPEN_DYNDNS2_ANSWER_H
#define RDBAPI_OPEN_DYNDNS2_ANSWER_H

#include <string>
#include <string_view>

namespace rdbopen {

struct ProviderAnswer {
    enum class Kind {
        accepted,   // the name has the addresses
        forbidden,  // the same request must not be sent again, else the provider may block the account
        postponed,  // any other answer, such as a fault; the request must not be sent again for half an hour
    };
    Kind kind;
    std::string reason;  // for the operator; empty if accepted; contains no text of the provider
};

//  Returns the meaning of an answer. status: the HTTP status code.
ProviderAnswer readProviderAnswer(long status, std::string_view body);

}  // namespace rdbopen

#endif

#ifndef CORE_NET_PERCENT_ENCODING_H_
#define CORE_NET_PERCENT_ENCODING_H_

#include <string>
#include <string_view>

namespace varnic::net {

// The encoding of the grpc-message trailer (gRPC's PROTOCOL-HTTP2, "Percent-Encoded"): printable
// ASCII stands as it is, "%" and every other byte become %XX with upper-case digits.
//
// A space at either end is escaped too: HTTP/2 peers treat a field value that starts or ends with
// white space as malformed (RFC 9113, section 8.2.1), and every decoder reads %20 as a space.
std::string PercentEncode(std::string_view text);

// The reverse. Never fails: an escape that is not "%" and two hexadecimal digits, of either case,
// is kept as it stands, as the document demands. The result may hold any byte.
std::string PercentDecode(std::string_view text);

}  // namespace varnic::net

#endif  // CORE_NET_PERCENT_ENCODING_H_

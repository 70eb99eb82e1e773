#include "core/cause.h"

#include "tavrik_sdk.h"

namespace tavrik {
namespace {

// 3GPP TS 24.008 annex H, and the modem's own.
const struct {
    uint8_t number;
    char text[TAVRIK_FAIL_CAUSE_SIZE];
} kCauses[] = {
    {0, "0 Unknown"},
    {1, "1 Unassigned number"},
    {3, "3 No route to destination"},
    {6, "6 Channel unacceptable"},
    {8, "8 Operator determined barring"},
    {16, "16 Normal call clearing"},
    {17, "17 User busy"},
    {18, "18 No user responding"},
    {19, "19 User alerting: no answer"},
    {21, "21 Call rejected"},
    {22, "22 Number changed"},
    {25, "25 Preemption"},
    {26, "26 Non selected user clearing"},
    {27, "27 Destination out of order"},
    {28, "28 Invalid number format"},
    {29, "29 Facility rejected"},
    {30, "30 Response to STATUS ENQUIRY"},
    {31, "31 Normal: unspecified"},
    {34, "34 No circuit/channel available"},
    {38, "38 Network out of order"},
    {41, "41 Temporary failure"},
    {42, "42 Switching equipment congestion"},
    {43, "43 Access information discarded"},
    {44, "44 Requested circuit/channel unavailable"},
    {47, "47 Resource unavailable"},
    {49, "49 QoS unavailable"},
    {50, "50 Requested facility not subscribed"},
    {55, "55 Incoming calls barred within CUG"},
    {57, "57 Bearer capability not authorized"},
    {58, "58 Bearer capability not available"},
    {63, "63 Service not available"},
    {65, "65 Bearer service not implemented"},
    {68, "68 ACM MAX reached"},
    {69, "69 Facility not implemented"},
    {70, "70 Only RDI bearer capability available"},
    {79, "79 Service not implemented"},
    {81, "81 Invalid transaction ID"},
    {87, "87 User not member of CUG"},
    {88, "88 Incompatible destination"},
    {91, "91 Invalid transit network selection"},
    {95, "95 Incorrect message"},
    {96, "96 Invalid mandatory information"},
    {97, "97 Message type non-existent"},
    {98, "98 Message type wrong state"},
    {99, "99 Information element not-existent"},
    {100, "100 Conditional IE error"},
    {101, "101 Message wrong state"},
    {102, "102 Recovery after timer expiry"},
    {111, "111 Protocol error: unspecified"},
    {127, "127 Interworking: unspecified"},
    {224, "224 Call barring"},
    {241, "241 FDN Blocked"},
};

} // namespace

const char *fail_cause_text(uint32_t cause) {
    const char *unspecified = "";
    for (const auto &row : kCauses) {
        if (row.number == cause)
            return row.text;
        if (row.number == 127)
            unspecified = row.text;
    }
    return unspecified;
}

} // namespace tavrik

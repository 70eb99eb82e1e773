#pragma once

#include <string>
#include <vector>

namespace tavrik::sim {

// Incoming messages as the network delivers them (3GPP TS 23.040), in hexadecimal with the service centre in front.

// A text as SMS-DELIVER: in the GSM alphabet where that has all characters, else in UCS-2; in as many parts as it
// takes, which then share `reference`. A sender that is no number is sent as a name. Throws std::invalid_argument for
// what is not UTF-8, too long, or a sender that cannot be written.
std::vector<std::string> deliver_pdus(const std::string &from, const std::string &text, int reference);

// What became of the message `reference` to a number: an SMS-STATUS-REPORT.
std::string report_pdu(const std::string &to, int reference, int status);

// The unsolicited line for a PDU, without line ends around it. Throws std::invalid_argument when it is no PDU.
std::string message_line(const std::string &pdu);

} // namespace tavrik::sim

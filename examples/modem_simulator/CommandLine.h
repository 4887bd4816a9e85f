// What a modem is sent in one line.
#pragma once

#include <string>
#include <vector>

// Takes a line apart into its commands, "ATE0V1+CSQ;+CREG?" into "ATE0", "ATV1", "AT+CSQ" and
// "AT+CREG?". What stands before the "AT" is no command, letters count as large ones where they are
// not between quotes. Empty: there is no "AT". Rests on ITU-T V.250, clauses 5.2 to 5.4.
std::vector<std::string> CommandsOf(const std::string& szLine);

// Whether a line that the modem says ends a command.
bool bIsFinal(const std::string& szLine);

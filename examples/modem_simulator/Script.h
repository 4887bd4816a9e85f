// What a simulated modem does: its reactions to commands, and what it says by itself.
#pragma once

#include <map>
#include <string>
#include <vector>

// One thing that the modem does.
struct step_t {
    enum eKind {
        LINE,    // writes the text between two pairs of carriage return and line feed
        RAW,     // writes the text as it is
        DELAY,   // lets so many ms pass
        PROMPT,  // writes "> " and reads up to Ctrl-Z; ESC ends the reaction with "OK"
        TORN,    // from here on to the end of the reaction writes in pieces of so many bytes
        ECHO_ON, // repeats what it is sent, from the next command on
        ECHO_OFF,
        HANG_UP, // goes away, and comes back after so many ms; for good when 0
        SET,     // notes the text as the value of a setting
    };
    eKind eKind;
    std::string szText; // "$NAME$" in it stands for the value of a setting
    int iNumber = 0;
    std::string szSetting = {};                   // of SET
    std::map<std::string, std::string> only = {}; // done only if these settings have these values
};
using steps_t = std::vector<step_t>;

// What follows a command.
struct reaction_t {
    std::string szPattern; // a "*" at its end stands for anything, and "$*$" in the steps for that
    bool bOnce;            // then the next one that fits counts
    steps_t steps;
};

// Steps that are done at a time, once or again and again.
struct timed_t {
    int iMs;
    bool bRepeated;
    steps_t steps;
};

struct script_t {
    std::vector<reaction_t> reactions; // the first that fits counts
    std::vector<timed_t> timed;
    std::map<int, steps_t> signals; // by number
    std::map<std::string, std::string> settings;
};

// Reads a script; README.md of this folder has its form. Throws std::runtime_error.
script_t ReadScript(const std::string& szFile);

// Makes a script of a flight record (docs/flight-record.md): what a command was answered first it
// is answered first again, and so on. Pauses are kept. Throws std::runtime_error.
script_t ReadFlightRecord(const std::string& szFile);

// A modem that has a network.
script_t BuiltInScript();

bool bFits(const std::string& szPattern, const std::string& szCommand);

// Puts the value of each setting in the place of its "$NAME$".
std::string szExpand(const std::string& szText, const std::map<std::string, std::string>& settings);

/// @file
/// @brief A small network of the test's own: an interface, and a DHCP server at its other end.
#pragma once

#include "internal/CUniqueFd.h"
#include "support/CChild.h"

#include <memory>
#include <string>
#include <sys/types.h>
#include <vector>

namespace TestSupport
{
/**
 * @brief Moves the test into a network of its own, with what the system's network tools write.
 *
 * The interface "dev0", down and without an address, is linked to "srv0" of a second network
 * namespace: 10.77.0.1/24 and fd77::1/64. /run, /etc and the leases of dhclient(8) are copies in
 * memory, the name of the machine is another one. Nothing reaches the machine, and no program that
 * was started in there outlives the object.
 *
 * Threads: the calling one moves; others stay where they are. Errors: std::system_error, and
 * std::runtime_error for a program that fails.
 * Rests on network_namespaces(7), veth(4), uts_namespaces(7) and mount(2).
 */
class CNetLab
{
public:
    /// @return Why the test cannot run here; empty if it can.
    static std::string szWhyNot();

    CNetLab();
    CNetLab(const CNetLab&) = delete;
    CNetLab& operator=(const CNetLab&) = delete;
    ~CNetLab();

    /// @brief Starts a DHCP server, for IPv4 and IPv6; returns when it serves. It gives 10.77.0.100
    ///        to .110, fd77::100 to ::110, the router 10.77.0.1 and the name server 10.77.0.53.
    void StartServer();

    /// @brief Runs a program in the test's network. @return What it wrote on standard output.
    static std::string szRun(const std::vector<std::string>& args);

    /// @return What shows on the machine itself whether a DHCP client was there: its resolv.conf,
    /// and
    ///         the names of leases and process numbers.
    std::string szMachineState() const;

    bool bHasIpv6() const; ///< @return Whether this kernel knows IPv6.

    /// @return Processes in either network, but for this one.
    std::vector<pid_t> Programs() const;

private:
    void CoverFiles();
    void LinkNetworks();
    void EndPrograms();

    QuorCore::CUniqueFd m_MachineEtc; ///< The directories that are covered.
    QuorCore::CUniqueFd m_MachineRun;
    QuorCore::CUniqueFd m_MachineLeases;
    QuorCore::CUniqueFd m_ServerNetwork;
    QuorCore::CUniqueFd m_Network;
    std::unique_ptr<CChild> m_pServer;
};
} // namespace TestSupport

/// @file
/// @brief The library-wide header: its version, and every public header.
#pragma once

#include "libQuorCore/CCallbackMap.h"
#include "libQuorCore/CCoreApp.h"
#include "libQuorCore/CEventTimer.h"
#include "libQuorCore/CFileConfig.h"
#include "libQuorCore/CFileNotification.h"
#include "libQuorCore/CInvokeCallback.h"
#include "libQuorCore/CLogger.h"
#include "libQuorCore/CObject.h"
#include "libQuorCore/CPipe.h"
#include "libQuorCore/CProcess.h"
#include "libQuorCore/CProcessManager.h"
#include "libQuorCore/CRunFlag.h"
#include "libQuorCore/CSerialize.h"
#include "libQuorCore/CSerializeBuffer.h"
#include "libQuorCore/CSlotCallback.h"
#include "libQuorCore/CSlotCallbackManager.h"
#include "libQuorCore/CSocketBase.h"
#include "libQuorCore/CSocketCallback.h"
#include "libQuorCore/CSocketClient.h"
#include "libQuorCore/CSocketHub.h"
#include "libQuorCore/CSocketServer.h"
#include "libQuorCore/CThread.h"
#include "libQuorCore/CThreadCom.h"
#include "libQuorCore/CTimerManager.h"
#include "libQuorCore/Chrono.h"
#include "libQuorCore/Export.h"
#include "libQuorCore/crc-16.h"
#include "libQuorCore/process_cap.h"
#include "libQuorCore/socketFrame.h"
#include "libQuorCore/string_tools.h"
#include "libQuorCore/synchro.h"

/// @name Version of the library, as "--lib-quorcore-version" prints it.
/// @{
#define QUORCORE_VERSION_MAJOR 2
#define QUORCORE_VERSION_MINOR 3
/// @}

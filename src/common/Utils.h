#pragma once

#include <Poco/JSON/Object.h>
#include <Poco/Path.h>

#include <list>
#include <string>
#include <vector>

#include "Export.h"

namespace kel {

/// Parses `text` into a JSON object with sorted keys.
/// @return empty if `text` is no JSON or its root is no object; one error line is logged then.
/// Threads: any.
KEL_API Poco::JSON::Object::Ptr stringToJson(const std::string& text);

/// Compact JSON text of `obj`.
/// @return "" for an empty pointer (not logged) and on failure (logged).
/// Threads: any.
KEL_API std::string jsonToString(Poco::JSON::Object::Ptr obj);

/// CRC-32 as zlib's crc32: polynomial 0xEDB88320, reflected, complemented before and after.
/// @param crc     0 for a fresh checksum, else the result over the bytes before.
/// @param buffer  `length` bytes; not null unless `length` is 0.
/// @param length  in bytes, not negative.
/// Threads: any.
KEL_API unsigned int GetCRC32(unsigned int crc, unsigned char* buffer, int length);

/// What listFilesRecursively() collects. Both `ListFileType::Plugin` and `Plugin` name a value.
enum ListFileType : int {
    MicroService = 0,  ///< files that can be executed; the keyword is not used
    Plugin = 1,        ///< names that start with the keyword and end in ".dll" (or ".so" on Linux)
    LogFile = 2,       ///< names that start with the keyword and end in ".log"
};

/// Appends the ids of all processes whose executable file name is exactly `name`, letter case
/// included. Processes whose executable cannot be read count by the kernel's short name. An empty
/// name finds nothing.
/// @param pids  not cleared first.
/// @return whether `pids` holds any id afterwards, earlier ones included.
/// Threads: any.
KEL_API bool findProcessByName(const std::string& name, std::vector<unsigned long>& pids);

/// Ends every process that findProcessByName() finds, at once and without asking it, the caller's
/// own included when `name` is the caller's own; the caller is then ended last.
/// Never throws; failures are logged. Threads: any; waits for a system command per process.
KEL_API void cleanProcessByName(const std::string& name);

/// Ends the process `pid` at once. Ids 0 and 1, and any that is no process id of the system, are
/// refused: an error line says so, and nothing is run.
/// Never throws; failures are logged, also that of the second attempt, which finds the process
/// already gone after a successful first one. Threads: any; waits for a system command.
KEL_API void cleanProcessById(const unsigned int& pid);

/// Directory of the running executable, ending in a separator.
/// @throws std::system_error  the system does not tell. Threads: any.
KEL_API std::string getCurrentPath();

/// The sub-directory `child` of getCurrentPath(), ending in a separator. It need not exist.
KEL_API std::string getCurrentChildPath(const std::string& child);

/// Appends the full paths of the files below `dir` that `type` and `keyword` select, depth first.
/// Tests are byte-wise and case-sensitive; an empty keyword matches every name. Links to
/// directories are followed; each directory is listed once, however many links lead to it, under
/// the path by which it is met first.
/// Micro-services and plug-ins are logged as they are found. A `type` that is none of the above
/// collects nothing.
/// @throws Poco::FileException  `dir` or a directory below is missing or unreadable; `files` keeps
///         what was found before.
/// Threads: any.
KEL_API void listFilesRecursively(const Poco::Path& dir, std::list<std::string>& files,
                                  const ListFileType& type, const std::string& keyword);

/// Sends one ICMP echo request (48 bytes, TTL 128) to each IPv4 address of a host and waits up to
/// 2000 ms for the first answer. On Linux it takes the right to a raw socket (cap_net_raw), or a
/// group within the system's net.ipv4.ping_group_range.
/// @param ip  IPv4 address or host name, also as a server URI ("tcp://host:1883", "host:1883").
/// @return false without an answer, or if the name does not resolve to an IPv4 address or the
///         process may not send pings (both logged).
/// Threads: any, side by side. Never throws.
KEL_API bool pingIp(const std::string& ip);

}  // namespace kel

/// Compact JSON text {"code":<code>,"msg":"<msg>"}. Allocation failures propagate. Threads: any.
KEL_API std::string makeJsonDefault(int code, std::string msg);

#pragma once

// An exported class may hold and derive from what its DLL does not export (the standard library):
// both sides use the same compiler and runtime. POCO's headers switch these off in the same way, so
// that users of the headers do not meet them.
#if defined(_MSC_VER)
#pragma warning(disable : 4251 4275)
#endif

// KEL_API marks what a host may use. Everything else stays inside the library.
#if defined(KEL_STATIC)
#define KEL_API
#elif defined(_WIN32)
#if defined(KelCommon_EXPORTS)
#define KEL_API __declspec(dllexport)
#else
#define KEL_API __declspec(dllimport)
#endif
#else
#define KEL_API __attribute__((visibility("default")))
#endif

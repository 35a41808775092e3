#pragma once

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

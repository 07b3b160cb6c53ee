// Export macro of the qfhost library.
#pragma once

#if defined(_WIN32)
#if defined(QFHOST_BUILDING)
#define QFHOST_API __declspec(dllexport)
#else
#define QFHOST_API __declspec(dllimport)
#endif
#else
#define QFHOST_API __attribute__((visibility("default")))
#endif

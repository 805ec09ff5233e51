#ifndef PPL_TEST_SANDBOX_GTEST_H
#define PPL_TEST_SANDBOX_GTEST_H

// The sandbox for GoogleTest tests: the test fails where the kernel refuses
// private namespaces, or is skipped where PPL_ALLOW_NO_NAMESPACES=1 allows.
#include <gtest/gtest.h>

#include <string>

#include "Sandbox.h"

#define PPL_NAMESPACE_OR_FAIL(enter)                                                       \
    do {                                                                                   \
        std::string why_;                                                                  \
        if (!(enter)(&why_)) {                                                             \
            if (::ppltest::NamespacesMayBeSkipped())                                       \
                GTEST_SKIP() << why_;                                                      \
            FAIL() << "the kernel refuses private namespaces (" << why_                    \
                   << "); set PPL_ALLOW_NO_NAMESPACES=1 to skip the tests that need them"; \
        }                                                                                  \
    } while (0)

// Enters the sandbox, or fails (skips, where allowed) the current test.
#define PPL_ENTER_SANDBOX_OR_SKIP() PPL_NAMESPACE_OR_FAIL(::ppltest::EnterSandbox)
#define PPL_ENTER_IPC_NAMESPACE_OR_SKIP() PPL_NAMESPACE_OR_FAIL(::ppltest::EnterIpcNamespace)

#endif

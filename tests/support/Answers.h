#pragma once

#include <OKVPlatform/ipc/Protocol.h>

#include <gtest/gtest.h>

namespace support {

/// The zero value of the result's type, with a refusal of this kind and its reason.
template <class A>
void expectRefused(const A& answer, okv::Refusal::Kind kind, const char* what) {
    EXPECT_EQ(answer.value, decltype(answer.value)()) << what;
    ASSERT_TRUE(answer.refusal) << what;
    EXPECT_EQ(answer.refusal->kind, kind) << what << ": " << answer.refusal->reason;
    EXPECT_FALSE(answer.refusal->reason.empty()) << what;
}

}  // namespace support

// A crypto library that refuses the algorithms. In a process of its own: what is fetched once stays fetched.

#include <crrecord/fingerprint.h>
#include <crrecord/status.h>

#include <gtest/gtest.h>
#include <openssl/err.h>
#include <openssl/evp.h>

TEST(CryptoRefused, IsAStatusAndLeavesTheErrorQueueAlone) {
    crfp_context_t context;
    ASSERT_EQ(EVP_set_default_properties(nullptr, "fips=yes"), 1);
    for (bool const queued : {false, true}) {
        for (unsigned int fptype = 0; fptype < 4; ++fptype) {
            if (queued) {
                ERR_raise(ERR_LIB_USER, ERR_R_MALLOC_FAILURE); // the caller's, and not the reason here
            }
            EXPECT_EQ(CRFPInitialize(&context, fptype), -1);
            EXPECT_EQ(*__cr_errno_location(), CR_STATUS_NOT_SUPPORTED);
            EXPECT_EQ(CRFPAppend(&context, "x", 1), -1);
            EXPECT_EQ(*__cr_errno_location(), CR_STATUS_INVALID);
            EXPECT_EQ(ERR_get_error(), queued ? ERR_PACK(ERR_LIB_USER, 0, ERR_R_MALLOC_FAILURE) : 0);
            EXPECT_EQ(ERR_get_error(), 0u);
        }
    }
    ASSERT_EQ(EVP_set_default_properties(nullptr, ""), 1);
    EXPECT_EQ(CRFPInitialize(&context, CR_FP_TYPE_SHA256), 0); // who was refused may try again
}

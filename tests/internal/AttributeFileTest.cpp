#include "internal/AttributeFile.h"

#include "support/CTempDirectory.h"

#include <fcntl.h>
#include <gtest/gtest.h>

using namespace QuorCore;
using namespace TestSupport;

namespace
{
TEST(AnAttributeFile, IsNotInheritedByAProgramThatIsStarted)
{
    const CTempDirectory directory;
    for (const eWriteMode mode : {eWriteMode::TRUNCATE, eWriteMode::APPEND}) {
        const CUniqueFd file = OpenAttribute(directory.szPath("value"), mode);
        ASSERT_TRUE(file);
        EXPECT_EQ(FD_CLOEXEC, fcntl(file.iGet(), F_GETFD));
    }
}
} // namespace

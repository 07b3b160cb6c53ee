// The service-provider access: the texts of every provider result and the wrapping of a
// failed query.
#include "service-common/ServiceProvider"

#include "TestSupport.h"
#include "qf/internal/TextConversion.h"

#include <cstring>

namespace moduletest {
namespace {

FailureRecord checkFailure(uint32_t code, uint32_t systemError) {
    try {
        SP::_CheckServiceProviderApiResult(code, systemError);
    } catch (const ServiceObjectException& e) {
        return e.Record();
    }
    ADD_FAILURE() << "no exception for " << code;
    return FailureRecord(0);
}

std::u16string checkText(uint32_t code, uint32_t systemError) {
    return checkFailure(code, systemError).Message();
}

TEST(CheckServiceProviderApiResult, EveryText) {
    EXPECT_NO_THROW(SP::_CheckServiceProviderApiResult(0, 0));
    EXPECT_NO_THROW(SP::_CheckServiceProviderApiResult(0, 5));

    // The texts of 0x10005 to 0x10008 do not depend on the system error.
    for (uint32_t systemError : {0u, 5u}) {
        EXPECT_EQ(checkText(0x10005, systemError),
                  u"service is not supported by the corresponding module.\n");
        EXPECT_EQ(checkText(0x10006, systemError), u"service object factory function failed.\n");
        EXPECT_EQ(checkText(0x10007, systemError),
                  u"there are no public service objects in corresponding module.\n");
        EXPECT_EQ(checkText(0x10008, systemError),
                  u"corresponding service is not supported by the service provider.\n");
    }

#if defined(_WIN32)
    // FormatMessageW's text, as it is (line break included), in English.
    const std::u16string io = SP::SystemErrorDescription(5);
    EXPECT_TRUE(io.starts_with(u"Access") && io.ends_with(u"denied.\r\n"));
#else
    const std::u16string io = SOImpl::AcpToUtf16(std::strerror(5));
    ASSERT_FALSE(io.empty());
    EXPECT_EQ(SP::SystemErrorDescription(5), io);
#endif

    EXPECT_EQ(checkText(0x10009, 0),
              u"the service provider cannot find corresponding module to create service "
              u"object.\n");
    EXPECT_EQ(checkText(0x10009, 5),
              u"the service provider cannot find corresponding module to create service "
              u"object.\n\nSystem error code: [5]\nDescription: " +
                  io + u"\n");
    // The short text ends in a blank, without a line break.
    EXPECT_EQ(checkText(0x1000A, 0),
              u"the service provider cannot find corresponding factory function in the module "
              u"to create service object. ");
    EXPECT_EQ(checkText(0x1000A, 5),
              u"the service provider cannot find corresponding factory function in the module "
              u"to create service object.\n\nSystem error code: [5]\nDescription: " +
                  io + u"\n");
    EXPECT_EQ(checkText(1234, 0),
              u"\"ServiceProviderGetServiceObject()\" call failed with code 1234.\n");
    EXPECT_EQ(checkText(3, 5),
              u"\"ServiceProviderGetServiceObject()\" call failed with code 3.\n\nSystem error "
              u"code: [5]\nDescription: " +
                  io + u"\n");
}

TEST(ServiceQuery, AFailedQueryIsWrappedWithTheServiceName) {
    const uint32_t id = atomOf("QFFormsTestMissingService");
    try {
        SP::GetServiceObject(id);
        ADD_FAILURE() << "no exception";
    } catch (const ServiceObjectException& e) {
        EXPECT_EQ(e.Code(), 0x10008u);
        EXPECT_EQ(e.Record().Message(),
                  u"Fail to query QFFormsTestMissingService service object: corresponding "
                  u"service is not supported by the service provider.\n");
        EXPECT_EQ(e.Record().Function(), "SP::_CheckServiceProviderApiResult");
        EXPECT_EQ(e.Record().File(), "Support/include/service-common/ServiceProvider");
        EXPECT_NE(sourceLine(e.Record().File(), e.Record().Line())
                      .find("void _CheckServiceProviderApiResult("),
                  std::string::npos);
    }
    // The name is in the narrow code page: UTF-8 outside Windows.
#if !defined(_WIN32)
    try {
        SP::GetServiceObject(id, "Grüße");
        ADD_FAILURE() << "no exception";
    } catch (const ServiceObjectException& e) {
        EXPECT_TRUE(e.Record().Message().starts_with(u"Fail to query Grüße service object: "));
    }
#endif
    EXPECT_FALSE(SP::TryGetServiceObject(id));
}

} // namespace
} // namespace moduletest

// The module's init service, the public service object "QFInitForms". Init hands the
// module's registration lists to the host services and installs the widget edit-object
// and selection factories; DeInit takes all of it back.
#pragma once

#include "qf/ServiceObjectBlock.h"

#include <cstdint>

class QFPluginFormsInitServiceImpl {
  public:
    static constexpr uint32_t kClassStamp = 0x51464946; // 'QFIF'

    uint32_t Init();
    uint32_t DeInit();
    // Nothing to do: answers 1.
    uint32_t OnRibbonInitialized();

  private:
    // The QFAnnotEditSelectFactory made by Init, kept so that DeInit can withdraw it.
    SODetails::BasicServiceObjectPtr<> annotEditSelectFactory_;
    bool annotEditSelectFactoryRegistered_ = false;
    bool selectEditObjectServiceRegistered_ = false;
    bool editObjectFactoryRegistered_ = false;
    bool compositeItemRegistered_ = false;
};

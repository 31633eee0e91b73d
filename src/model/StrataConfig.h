#pragma once

#include "model/Config.h"
#include "model/StrataModule.h"

#include <map>

namespace Kestrune {

// The model of a Strata switch: the common root plus its chip modules.
class StrataConfig : public Config {
  public:
    using Ptr = std::shared_ptr<StrataConfig>;
    using PtrConst = std::shared_ptr<const StrataConfig>;
    using ModuleSet = std::map<StrataModule, bool>;

    const ModuleSet& strataModule() const { return strataModule_; }
    // The flag stored with the module, false when it is absent.
    bool strataModule(const StrataModule& module) const;
    void strataModuleIs(const StrataModule& module, bool flag) { strataModule_[module] = flag; }
    void strataModuleDel(const StrataModule& module) { strataModule_.erase(module); }
    void strataModuleDelAll() { strataModule_.clear(); }
    void strataModuleNotify(const StrataModule&) {}

    std::string_view className() const override { return "StrataConfig"; }

  private:
    ModuleSet strataModule_;
};

StrataConfig::Ptr strataConfigFactory();

} // namespace Kestrune

#pragma once

#include "model/RoutedPortInterface.h"

namespace Kestrune {

// A front-panel port of a Strata switch with its chip port and CPU queue bases.
class StrataInterface : public RoutedPortInterface {
  public:
    using Ptr = std::shared_ptr<StrataInterface>;
    using PtrConst = std::shared_ptr<const StrataInterface>;

    using RoutedPortInterface::RoutedPortInterface;

    std::uint32_t port() const { return port_; }
    void portIs(std::uint32_t port) { port_ = port; }

    std::uint32_t modId() const { return modId_; }
    void modIdIs(std::uint32_t modId) { modId_ = modId; }

    std::uint32_t uc_qbase() const { return uc_qbase_; }
    void uc_qbaseIs(std::uint32_t qbase) { uc_qbase_ = qbase; }

    std::uint32_t mc_qbase() const { return mc_qbase_; }
    void mc_qbaseIs(std::uint32_t qbase) { mc_qbase_ = qbase; }

    std::string_view className() const override { return "StrataInterface"; }
    AttributeTable<Interface> attributes() const override;

  private:
    std::uint32_t port_ = 0;
    std::uint32_t modId_ = 0;
    std::uint32_t uc_qbase_ = 0;
    std::uint32_t mc_qbase_ = 0;
};

StrataInterface::Ptr strataInterfaceFactory(std::string name);

} // namespace Kestrune

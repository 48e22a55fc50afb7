#include "host/host_medium.h"

#include "core/log.h"

namespace lm::host {

void HostMedium::tellWritten(const std::vector<session::ObjectBytes>& changes) {
    if (auto told = link_->tellWritten(changes); !told)
        log::warn("{} does not know what was written: {}", link_->host().holder.text(), told.error().text());
}

void HostMedium::tellParameter(const storage::ParameterWrite& write) {
    if (auto told = link_->tellParameter(write); !told)
        log::warn("{} does not record what was written: {}", link_->host().holder.text(),
                  told.error().text());
}

}  // namespace lm::host

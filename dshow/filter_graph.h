// FilterGraph: a DirectShow graph without a clock, so that its filters work as fast as they can.
#pragma once

#include <windows.h>
// After windows.h.
#include <dshow.h>

#include <functional>

#include "core/com_ptr.h"

namespace marlinda {

// Belongs to one thread, which is in an apartment.
class FilterGraph {
 public:
  // Throws HResultError where the system has no filter graph.
  FilterGraph();
  FilterGraph(const FilterGraph&) = delete;
  FilterGraph& operator=(const FilterGraph&) = delete;
  // Stops the graph: filters must not be released while they run.
  ~FilterGraph() { Stop(); }

  IGraphBuilder* builder() const noexcept { return builder_.Get(); }
  HRESULT Run();
  void Stop() noexcept { control_->Stop(); }
  // True once a filter has reported an error.
  bool HasFailed();

 private:
  ComPtr<IGraphBuilder> builder_;
  ComPtr<IMediaControl> control_;
  ComPtr<IMediaEvent> events_;
  bool has_failed_ = false;
};

// Calls `visit` with each pin of the filter until it returns true.
void ForEachPin(IBaseFilter* filter, PIN_DIRECTION direction,
                const std::function<bool(IPin*)>& visit);

}  // namespace marlinda

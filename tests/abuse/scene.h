// What a well-behaved host passes to any method of the module, and the states that it brings
// objects into. Everything goes by interface and parameter name, so that a new class gets its
// share.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "tests/support/com_client.h"
#include "tests/support/contract_model.h"

namespace marlinda::testing {

enum class State { kFresh, kSetUp, kOpen };
inline constexpr State kStates[] = {State::kFresh, State::kSetUp, State::kOpen};
const char* NameOf(State state);

// The objects and files of one case.
class Scene {
 public:
  // Files come from and go into `folder`; `sample` is an Ogg file.
  Scene(std::wstring folder, std::wstring sample, const std::vector<Class>& classes)
      : folder_(std::move(folder)), sample_(std::move(sample)), classes_(classes) {}

  // Brings the object, which has all that it needs from this scene, into a state.
  void Bring(IUnknown* object, State state);

  std::int64_t LegalNumber(const Parameter& parameter) const;
  // For an object that reads files, or one that writes them.
  std::wstring LegalText(const Parameter& parameter, bool imports) const;
  // Some object with that interface, kept by the scene. Null where the module has none.
  IUnknown* LegalObject(const Parameter& parameter);

 private:
  template <class I>
  I* Keep(ComPtr<I> object);
  ComPtr<IAudioReader> MakeReader();
  ComPtr<IAudioPool> MakePool();
  void SetUp(IUnknown* object);
  void Open(IUnknown* object);

  const std::wstring folder_;
  const std::wstring sample_;
  const std::vector<Class>& classes_;
  std::vector<ComPtr<IUnknown>> kept_;
};

}  // namespace marlinda::testing

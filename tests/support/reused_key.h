// While a reused_key::Scope is alive on a thread, every RSA key the library
// generates there is one key made once: loops that repeat a provisioning or
// a renewal per injected failure would otherwise take minutes.
#ifndef DAXO_TEST_REUSED_KEY_H
#define DAXO_TEST_REUSED_KEY_H

namespace reused_key {

class Scope {
 public:
  Scope();
  ~Scope();
};

}  // namespace reused_key

#endif

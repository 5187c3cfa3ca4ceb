#include "Fenrik/Node.h"

namespace Fenrik {

bool ThreadControl::tsp_ = false;

void Node::lastUserGone() { delete this; }

const Publisher* Node::publisher() const { return nullptr; }

Kiv::KivType Node::typeData() const { return {}; }

}  // namespace Fenrik

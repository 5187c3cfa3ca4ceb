#include "Fenrik/Node.h"

namespace Fenrik {

std::uint8_t ThreadControl::tsp_ = 0;

Node::~Node() { nodeFlagSet(NodeFlag::hasNotificationActive, false); }

void Node::lastUserGone() { delete this; }

const Publisher* Node::publisher() const { return nullptr; }

Kiv::KivType Node::typeData() const { return {}; }

}  // namespace Fenrik

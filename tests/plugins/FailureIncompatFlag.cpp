// Stands in for a platform library that is incompatible with Tamlo: it
// defines the library-presence flag with a value of its own. The failure tests
// preload it so that its definition comes first in dynamic symbol lookup.
extern "C" {
int platformLibPresenceFlag = 1;
}

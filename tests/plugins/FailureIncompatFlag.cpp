// An incompatible platform library: preloaded, its own presence flag wins the symbol lookup.
extern "C" {
int platformLibPresenceFlag = 1;
}

/* Modules the engine must refuse: one built for another interface version,
 * one without a callback table. */
#ifdef FAKE_version
int transapi_version = 3;
#else
int transapi_version = 4;
#endif
int transapi_init(void* running) { (void)running; return 0; }
void transapi_close(void) {}

// libtovadmod.so is assembled from the subsystem archives.

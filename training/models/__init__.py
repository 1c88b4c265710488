"""The networks as training graphs; each mirrors one engine of the library, table for table."""

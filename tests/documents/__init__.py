"""What the tests of the documents read: pages of docs/, and what of the sources the pages tell about."""

# Empty compiler generated dependencies file for ostel.
# This may be replaced when dependencies are built.

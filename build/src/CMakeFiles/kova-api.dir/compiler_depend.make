# Empty compiler generated dependencies file for kova-api.
# This may be replaced when dependencies are built.

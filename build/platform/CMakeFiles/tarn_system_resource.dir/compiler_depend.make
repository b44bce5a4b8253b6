# Empty compiler generated dependencies file for tarn_system_resource.
# This may be replaced when dependencies are built.

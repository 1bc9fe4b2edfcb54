~x*y?
ax/xyz/yq